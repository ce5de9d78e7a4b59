// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/Redaction.h"

#include <re2/re2.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <utility>

namespace SDK {

namespace {

using Range = std::pair<std::size_t, std::size_t>;  // begin and end

// Bytes, whatever they encode: an argument that is no UTF-8 hides nothing from an expression.
RE2::Options Options()
{
    RE2::Options options(RE2::Latin1);
    options.set_log_errors(false);
    return options;
}

std::string Joined(const std::vector<std::string>& arguments)
{
    std::string text;
    for (const std::string& argument : arguments) {
        text.append(&argument == &arguments.front() ? "" : " ").append(argument);
    }
    return text;
}

std::vector<Range> Matches(const RE2& expression, const std::string& text)
{
    std::vector<Range> found;
    const int groups = std::min(expression.NumberOfCapturingGroups(), 1) + 1;
    std::array<re2::StringPiece, 2> parts;
    for (std::size_t from = 0; from <= text.size();) {
        if (!expression.Match(text, from, text.size(), RE2::UNANCHORED, parts.data(), groups)) {
            break;
        }
        const re2::StringPiece& whole = parts.front();
        const re2::StringPiece& hidden = groups > 1 ? parts.back() : whole;
        if (!hidden.empty()) {
            const auto begin = static_cast<std::size_t>(hidden.data() - text.data());
            found.emplace_back(begin, begin + hidden.size());
        }
        from = static_cast<std::size_t>(whole.data() - text.data()) + std::max<std::size_t>(whole.size(), 1);
    }
    return found;
}

}  // namespace

Redaction::Redaction(const std::vector<std::string>& texts)
{
    for (const std::string& text : texts) {
        expressions.push_back(std::make_shared<const RE2>(text, Options()));
    }
}

std::string Redaction::WhyNot(const std::string& expression)
{
    return RE2(expression, Options()).error();
}

std::vector<std::string> Redaction::Apply(std::vector<std::string> arguments) const
{
    const std::string text = Joined(arguments);
    std::vector<bool> isHidden(text.size());
    for (const auto& expression : expressions) {
        for (const auto& [begin, end] : expression->ok() ? Matches(*expression, text) : std::vector<Range>{}) {
            std::fill(isHidden.begin() + static_cast<std::ptrdiff_t>(begin),
                      isHidden.begin() + static_cast<std::ptrdiff_t>(end), true);
        }
    }
    std::size_t at = 0;
    for (std::string& argument : arguments) {
        std::string shown;
        for (std::size_t i = 0; i < argument.size(); ++i, ++at) {
            if (!isHidden[at]) {
                shown += argument[i];
            } else if (i == 0 || !isHidden[at - 1]) {
                shown += replacement;
            }
        }
        argument = std::move(shown);
        ++at;  // the blank
    }
    return arguments;
}

}  // namespace SDK
