// SPDX-License-Identifier: Apache-2.0
#include "sdk/JsonUtils.h"

#include <json/reader.h>
#include <json/writer.h>

#include <array>
#include <cstdio>
#include <exception>
#include <memory>
#include <sstream>
#include <string>
#include <string_view>

#include "host/sdk/SafeText.h"
#include "sdk/StrUtils.h"

namespace SDK {

namespace {

// Levels of arrays and objects in a document. The library parses, copies and destroys by recursion; the deepest
// document of ours (a container's description) has fewer than ten.
constexpr int maxDepth = 100;

std::unique_ptr<Json::CharReader> StrictReader()
{
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["allowTrailingCommas"] = false;  // strictMode of this library version leaves it on
    builder["stackLimit"] = maxDepth + 1;    // it counts the innermost value as a level
    return std::unique_ptr<Json::CharReader>(builder.newCharReader());
}

// The library reports "* Line 3, Column 7\n  text\n", once for each error: the first becomes "line 3, column 7: text".
std::string FirstError(const std::string& report)
{
    int line = 0;
    int column = 0;
    std::array<char, 256> text{};
    if (std::sscanf(report.c_str(), "* Line %d, Column %d\n  %255[^\n]", &line, &column, text.data()) != 3) {
        return "not JSON";
    }
    return StrUtils::Format("line %d, column %d: %s", line, column, text.data());
}

bool Parse(const char* text, std::size_t length, Json::Value& root, std::string& error)
{
    if (text == nullptr || length == 0) {
        error = "line 1, column 1: empty document";
        return false;
    }
    // As the writer below: each alarm is parsed on its way out.
    thread_local const std::unique_ptr<Json::CharReader> reader = StrictReader();
    std::string report;
    if (reader->parse(text, text + length, &root, &report)) {
        return true;
    }
    error = FirstError(report);
    return false;
}

// Without the copy that asString makes.
std::string_view TextOf(const Json::Value& value)
{
    const char* begin = nullptr;
    const char* end = nullptr;
    return value.getString(&begin, &end) ? std::string_view(begin, static_cast<std::size_t>(end - begin)) : "";
}

std::string_view KeyOf(const Json::Value::const_iterator& item)
{
    const char* end = nullptr;
    const char* begin = item.memberName(&end);
    return begin == nullptr ? "" : std::string_view(begin, static_cast<std::size_t>(end - begin));
}

bool IsClean(const Json::Value& value)
{
    if (value.isString()) {
        return SafeText::IsUtf8(TextOf(value));
    }
    if (!value.isArray() && !value.isObject()) {
        return true;
    }
    for (auto item = value.begin(), end = value.end(); item != end; ++item) {
        if ((value.isObject() && !SafeText::IsUtf8(KeyOf(item))) || !IsClean(*item)) {
            return false;
        }
    }
    return true;
}

// A copy and not a matter of writing: two keys may become one.
Json::Value Cleaned(const Json::Value& value)
{
    if (value.isString()) {
        return SafeText::ReplaceInvalid(value.asString());
    }
    if (!value.isArray() && !value.isObject()) {
        return value;
    }
    Json::Value clean(value.type());
    for (auto item = value.begin(); item != value.end(); ++item) {
        if (value.isArray()) {
            clean.append(Cleaned(*item));
        } else {
            clean[SafeText::ReplaceInvalid(item.name())] = Cleaned(*item);
        }
    }
    return clean;
}

std::unique_ptr<Json::StreamWriter> OneLineWriter()
{
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    builder["commentStyle"] = "None";
    builder["emitUTF8"] = false;
    return std::unique_ptr<Json::StreamWriter>(builder.newStreamWriter());
}

// An alarm is built for every call over a limit, so an attacker chooses how often this is paid for: the writer and the
// stream are made once for each thread. Making the writer costs more than most documents.
std::string Write(const Json::Value& value)
{
    thread_local const std::unique_ptr<Json::StreamWriter> writer = OneLineWriter();
    thread_local std::ostringstream stream;
    stream.str({});
    writer->write(value, &stream);
    return stream.str();
}

// The one control character that the library writes as it is. It can only be within a string.
void EscapeDelete(std::string& text)
{
    for (std::size_t at = text.find('\x7F'); at != std::string::npos; at = text.find('\x7F', at)) {
        text.replace(at, 1, "\\u007f");
    }
}

bool GetMember(const Json::Value& value, const char* key, Json::ValueType type, Json::Value& out)
{
    if (!value.isObject() || key == nullptr || !value.isMember(key) || value[key].type() != type) {
        return false;
    }
    Json::Value member = value[key];  // `out` may be `value`
    out.swap(member);
    return true;
}

}  // namespace

int JsonUtils::ParseJsonStr(const char* text, std::size_t length, Json::Value& root)
{
    std::string error;
    return ParseJsonStr(text, length, root, error);
}

int JsonUtils::ParseJsonStr(const char* text, std::size_t length, Json::Value& root, std::string& error)
{
    error.clear();
    try {
        Json::Value parsed;
        if (Parse(text, length, parsed, error)) {
            root.swap(parsed);
            return 0;
        }
    } catch (const Json::Exception&) {  // thrown for this alone; other errors are reported
        error = "nested more than " + std::to_string(maxDepth) + " levels deep";
    } catch (const std::exception& failure) {
        error = failure.what();
    }
    root = Json::Value();
    return -1;
}

bool JsonUtils::GetArrayValue(const Json::Value& value, const char* key, Json::Value& out)
{
    return GetMember(value, key, Json::arrayValue, out);
}

bool JsonUtils::GetSubobjectValue(const Json::Value& value, const char* key, Json::Value& out)
{
    return GetMember(value, key, Json::objectValue, out);
}

std::string JsonUtils::JsonToString(const Json::Value& value)
{
    std::string text = IsClean(value) ? Write(value) : Write(Cleaned(value));
    EscapeDelete(text);
    return text;
}

}  // namespace SDK
