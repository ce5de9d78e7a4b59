// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace re2 {
class RE2;
}

namespace SDK {

// Hides secrets in a command line: what regular expressions (RE2's syntax, which takes linear time whatever the text)
// match, or where one has a group, what its first group matches. Copyable. Any thread.
class Redaction {
public:
    static constexpr char replacement[] = "[redacted]";

    Redaction() = default;
    // Expressions that are none hide nothing: ask WhyNot before.
    explicit Redaction(const std::vector<std::string>& expressions);

    // What is wrong with an expression; empty: nothing.
    static std::string WhyNot(const std::string& expression);

    // The arguments are matched as one text with blanks between them; each stays an argument.
    std::vector<std::string> Apply(std::vector<std::string> arguments) const;

private:
    std::vector<std::shared_ptr<const re2::RE2>> expressions;
};

}  // namespace SDK
