// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Document.h"

#include <sys/stat.h>

#include <algorithm>
#include <iterator>
#include <utility>

#include "host/agent/Console.h"
#include "host/sdk/RegularFile.h"
#include "sdk/JsonUtils.h"

namespace Agent {

namespace {

const char* KindName(Json::ValueType type)
{
    switch (type) {
        case Json::nullValue:
            return "null";
        case Json::stringValue:
            return "a text";
        case Json::booleanValue:
            return "true or false";
        case Json::arrayValue:
            return "a list";
        case Json::objectValue:
            return "an object";
        case Json::intValue:
        case Json::uintValue:
        case Json::realValue:
            return "a number";
    }
    return "something else";
}

}  // namespace

std::string Document::Read(const char* kind, const std::string& path, std::vector<std::string>& warnings)
{
    SDK::RegularFile file = SDK::RegularFile::Read(path, maxBytes);
    if (!file.error.empty()) {
        throw BadInput(file.error);
    }
    if ((file.mode & S_IWOTH) != 0) {
        warnings.push_back(std::string(kind) + " " + path + " may be changed by every user of this host");
    }
    return std::move(file.text);
}

Document::Document(std::string theText) : text(std::move(theText))
{
    if (text.starts_with("\xEF\xBB\xBF")) {
        throw BadInput("begins with a byte-order mark: save it as UTF-8 without one");
    }
    for (std::size_t end = text.find('\n'); end != std::string::npos; end = text.find('\n', end + 1)) {
        lineStarts.push_back(static_cast<std::ptrdiff_t>(end) + 1);
    }
    std::string error;
    if (SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), root, error) != 0) {
        throw BadInput("not JSON: " + error);
    }
    Demand(root, Json::objectValue, "the document");
}

std::string Document::PlaceOf(const Json::Value& value) const
{
    const auto next = std::upper_bound(lineStarts.begin(), lineStarts.end(), value.getOffsetStart());
    return "line " + std::to_string(next - lineStarts.begin()) + ", column " +
           std::to_string(value.getOffsetStart() - *std::prev(next) + 1);
}

void Document::Demand(const Json::Value& value, Json::ValueType type, const std::string& name) const
{
    if (value.type() != type) {
        throw BadInput(PlaceOf(value) + ": " + name + ": must be " + KindName(type) + ", is " + KindName(value.type()));
    }
}

}  // namespace Agent
