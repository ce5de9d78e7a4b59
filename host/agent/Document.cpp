// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Document.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>
#include <utility>

#include "host/agent/Console.h"
#include "host/sdk/FileDescriptor.h"
#include "sdk/FileUtils.h"
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
    // What was opened is looked at, not what the path leads to: it may lead elsewhere a moment later. A pipe or a
    // device could keep the agent waiting, at the start and whenever the policy is read again.
    const SDK::FileDescriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC | O_NOCTTY));
    struct stat status {};
    if (!file || ::fstat(file.Get(), &status) != 0) {
        throw BadInput(std::strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) {
        throw BadInput("is not a regular file");
    }
    if ((status.st_mode & S_IWOTH) != 0) {
        warnings.push_back(std::string(kind) + " " + path + " may be changed by every user of this host");
    }
    std::string text;
    if (SDK::FileUtils::ReadFile("/proc/self/fd/" + std::to_string(file.Get()), text, maxBytes + 1) != 0) {
        throw BadInput(std::strerror(errno));
    }
    if (text.size() > maxBytes) {
        throw BadInput("is larger than " + std::to_string(maxBytes) + " bytes");
    }
    return text;
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
