// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/JsonText.h"

#include <json/writer.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>

#include "host/sdk/SafeText.h"

namespace SDK::JsonText {

namespace {

template <class Integer>
void AppendInteger(std::string& out, Integer number)
{
    std::array<char, 24> digits;
    const auto [end, error] = std::to_chars(digits.data(), digits.data() + digits.size(), number);
    out.append(digits.data(), end);  // 20 digits at most: there is no error
}

void AppendUnit(std::string& out, std::uint32_t unit)
{
    constexpr char digits[] = "0123456789abcdef";
    out += "\\u";
    for (unsigned shift = 16; shift > 0;) {
        shift -= 4;
        out += digits[(unit >> shift) & 0x0FU];
    }
}

// RFC 8259 section 7: what is beyond 16 bits is written as two surrogates.
void AppendEscaped(std::string& out, std::uint32_t value)
{
    constexpr std::uint32_t firstSupplementary = 0x10000;
    if (value < firstSupplementary) {
        AppendUnit(out, value);
        return;
    }
    value -= firstSupplementary;
    AppendUnit(out, 0xD800U + (value >> 10U));
    AppendUnit(out, 0xDC00U + (value & 0x3FFU));
}

// What stands after the backslash of a short escape; 0 for a character that has none.
char ShortEscape(char character)
{
    switch (character) {
        case '"':
        case '\\':
            return character;
        case '\b':
            return 'b';
        case '\f':
            return 'f';
        case '\n':
            return 'n';
        case '\r':
            return 'r';
        case '\t':
            return 't';
        default:
            return 0;
    }
}

bool IsPlain(char character)
{
    return character >= ' ' && character < '\x7F' && character != '"' && character != '\\';
}

void AppendQuoted(std::string& out, std::string_view text)
{
    out += '"';
    while (!text.empty()) {
        std::size_t plain = 0;
        while (plain < text.size() && IsPlain(text[plain])) {
            ++plain;
        }
        out += text.substr(0, plain);
        text.remove_prefix(plain);
        if (text.empty()) {
            break;
        }
        const SafeText::CodePoint next = SafeText::FirstCodePoint(text);
        if (const char letter = ShortEscape(text.front()); letter != 0) {
            out += '\\';
            out += letter;
        } else {
            AppendEscaped(out, next.value);
        }
        text.remove_prefix(std::max<std::size_t>(next.length, 1));
    }
    out += '"';
}

void AppendArray(std::string& out, const Json::Value& value)
{
    char before = '[';
    for (const Json::Value& item : value) {
        out += before;
        Append(out, item);
        before = ',';
    }
    out += before == '[' ? "[]" : "]";
}

void AppendObject(std::string& out, const Json::Value& value)
{
    char before = '{';
    for (auto item = value.begin(), end = value.end(); item != end; ++item) {
        out += before;
        AppendQuoted(out, KeyOf(item));
        out += ':';
        Append(out, *item);
        before = ',';
    }
    out += before == '{' ? "{}" : "}";
}

}  // namespace

void Append(std::string& out, const Json::Value& value)
{
    switch (value.type()) {
        case Json::nullValue:
            out += "null";
            break;
        case Json::intValue:
            AppendInteger(out, value.asLargestInt());
            break;
        case Json::uintValue:
            AppendInteger(out, value.asLargestUInt());
            break;
        case Json::realValue:
            out += Json::valueToString(value.asDouble());
            break;
        case Json::stringValue:
            AppendQuoted(out, TextOf(value));
            break;
        case Json::booleanValue:
            out += value.asBool() ? "true" : "false";
            break;
        case Json::arrayValue:
            AppendArray(out, value);
            break;
        case Json::objectValue:
            AppendObject(out, value);
            break;
    }
}

std::string_view TextOf(const Json::Value& value)
{
    const char* begin = nullptr;
    const char* end = nullptr;
    value.getString(&begin, &end);
    return {begin, static_cast<std::size_t>(end - begin)};
}

std::string_view KeyOf(const Json::Value::const_iterator& item)
{
    const char* end = nullptr;
    const char* begin = item.memberName(&end);
    return {begin, static_cast<std::size_t>(end - begin)};
}

}  // namespace SDK::JsonText
