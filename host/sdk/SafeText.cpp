// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/SafeText.h"

#include <array>
#include <cstdio>

namespace SDK::SafeText {

namespace {

// What a lead byte promises: how many bytes, its own bits, and the least code point that needs so many.
struct Lead {
    std::size_t length;
    std::uint32_t bits;
    std::uint32_t least;
};

Lead LeadOf(unsigned char byte)
{
    if (byte < 0x80U) {
        return {1, byte, 0};
    }
    if (byte >= 0xC0U && byte < 0xE0U) {
        return {2, byte & 0x1FU, 0x80};
    }
    if (byte >= 0xE0U && byte < 0xF0U) {
        return {3, byte & 0x0FU, 0x800};
    }
    if (byte >= 0xF0U && byte < 0xF8U) {
        return {4, byte & 0x07U, 0x10000};
    }
    return {0, 0, 0};
}

bool IsScalarValue(std::uint32_t value)
{
    return value <= 0x10FFFF && (value < 0xD800 || value > 0xDFFF);
}

bool IsUnfitForLine(std::uint32_t value)
{
    return value < 0x20 || (value >= 0x7F && value < 0xA0) ||  // C0, DEL, C1
           value == 0x2028 || value == 0x2029 ||               // line and paragraph separator
           value == 0x200E || value == 0x200F || value == 0x061C || (value >= 0x202A && value <= 0x202E) ||
           (value >= 0x2066 && value <= 0x2069) || value == 0xFEFF;  // direction marks, byte order mark
}

void AppendNumber(std::string& out, const char* format, std::uint32_t value)
{
    std::array<char, 16> text{};
    // The formats are the literals below; -Wformat-nonliteral cannot see through the parameter.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    std::snprintf(text.data(), text.size(), format, value);
#pragma GCC diagnostic pop
    out += text.data();
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
            AppendNumber(out, value < 0x80 ? "\\x%02x" : "\\u{%x}", value);
    }
}

}  // namespace

CodePoint FirstCodePoint(std::string_view text)
{
    if (text.empty()) {
        return {};
    }
    const Lead lead = LeadOf(static_cast<unsigned char>(text.front()));
    if (lead.length == 0 || lead.length > text.size()) {
        return {};
    }
    std::uint32_t value = lead.bits;
    for (std::size_t i = 1; i < lead.length; ++i) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if ((byte & 0xC0U) != 0x80U) {
            return {};
        }
        value = (value << 6U) | (byte & 0x3FU);
    }
    if (value < lead.least || !IsScalarValue(value)) {
        return {};
    }
    return {value, lead.length};
}

bool IsUtf8(std::string_view text)
{
    while (!text.empty()) {
        const CodePoint next = FirstCodePoint(text);
        if (next.length == 0) {
            return false;
        }
        text.remove_prefix(next.length);
    }
    return true;
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
            AppendNumber(out, "\\x%02x", static_cast<unsigned char>(text.front()));
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
