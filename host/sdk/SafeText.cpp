// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/SafeText.h"

#include <Poco/UTF8Encoding.h>

#include <algorithm>

#include "sdk/StrUtils.h"

namespace SDK::SafeText {

namespace {

bool IsUnfitForLine(std::uint32_t value)
{
    return value < 0x20 || (value >= 0x7F && value < 0xA0) ||  // C0, DEL, C1
           value == 0x2028 || value == 0x2029 ||               // line and paragraph separator
           value == 0x200E || value == 0x200F || value == 0x061C || (value >= 0x202A && value <= 0x202E) ||
           (value >= 0x2066 && value <= 0x2069) || value == 0xFEFF;  // direction marks, byte order mark
}

void AppendEscape(std::string& out, std::uint32_t value)
{
    switch (value) {
        case '\n':
            out += "\\n";
            break;
        case '\r':
            out += "\\r";
            break;
        case '\t':
            out += "\\t";
            break;
        default:
            out += value < 0x80 ? StrUtils::Format("\\x%02x", value) : StrUtils::Format("\\u{%x}", value);
    }
}

}  // namespace

CodePoint FirstCodePoint(std::string_view text)
{
    constexpr std::size_t longest = 4;  // bytes
    static const Poco::UTF8Encoding utf8;
    const auto* bytes = reinterpret_cast<const unsigned char*>(text.data());
    if (!text.empty() && bytes[0] < 0x80) {
        return {bytes[0], 1};
    }
    const int value = text.empty() ? -1 : utf8.queryConvert(bytes, static_cast<int>(std::min(text.size(), longest)));
    if (value < 0) {  // not well-formed, or cut short
        return {};
    }
    return {static_cast<std::uint32_t>(value), static_cast<std::size_t>(utf8.sequenceLength(bytes, 1))};
}

// Every text of every alarm comes by here, and nearly all of them are ASCII as a whole.
bool IsUtf8(std::string_view text)
{
    const auto isAscii = [](char c) {
        return static_cast<unsigned char>(c) < 0x80;
    };
    for (;;) {
        text.remove_prefix(
            static_cast<std::size_t>(std::find_if_not(text.begin(), text.end(), isAscii) - text.begin()));
        if (text.empty()) {
            return true;
        }
        const CodePoint next = FirstCodePoint(text);
        if (next.length == 0) {
            return false;
        }
        text.remove_prefix(next.length);
    }
}

std::string ReplaceInvalid(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const CodePoint next = FirstCodePoint(text);
        if (next.length == 0) {
            out += "\xEF\xBF\xBD";
            text.remove_prefix(1);
            continue;
        }
        out += text.substr(0, next.length);
        text.remove_prefix(next.length);
    }
    return out;
}

void AppendEscaped(std::string& out, std::string_view text)
{
    while (!text.empty()) {
        const CodePoint next = FirstCodePoint(text);
        if (next.length == 0) {
            out += StrUtils::Format("\\x%02x", static_cast<unsigned char>(text.front()));
            text.remove_prefix(1);
            continue;
        }
        if (IsUnfitForLine(next.value)) {
            AppendEscape(out, next.value);
        } else {
            out += text.substr(0, next.length);
        }
        text.remove_prefix(next.length);
    }
}

}  // namespace SDK::SafeText
