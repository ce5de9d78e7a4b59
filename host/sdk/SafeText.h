// SPDX-License-Identifier: Apache-2.0
// Text that others chose (process names, paths, labels, replies) made fit for a log line, a terminal or JSON.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace SDK::SafeText {

// The first code point of `text`. Length 0: `text` is empty or does not begin with well-formed UTF-8 (RFC 3629: no
// overlong forms, no surrogates, nothing beyond U+10FFFF).
struct CodePoint {
    std::uint32_t value = 0;
    std::size_t length = 0;
};
CodePoint FirstCodePoint(std::string_view text);

bool IsUtf8(std::string_view text);

// `text` with every byte that belongs to no well-formed sequence replaced by U+FFFD.
std::string ReplaceInvalid(std::string_view text);

// Appends `text` as a part of one line: control characters (C0, DEL, C1), line separators, marks that change the
// direction of writing, and bytes that are not UTF-8 become \n, \r, \t, \xNN or \u{NNNN}. Backslashes stay as they are:
// the result is for people to read, not to be decoded.
void AppendEscaped(std::string& out, std::string_view text);

}  // namespace SDK::SafeText
