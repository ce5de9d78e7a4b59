// SPDX-License-Identifier: Apache-2.0
#include "host/agent/PolicyFile.h"

#include <Poco/SHA2Engine.h>
#include <json/value.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <initializer_list>
#include <string_view>
#include <utility>

#include "PathEntry.h"
#include "host/agent/Console.h"
#include "host/agent/Document.h"

namespace Agent {

namespace {

std::string Join(const std::string& place, const std::string& key)
{
    return place.empty() ? key : place + "." + key;
}

// One object of the document.
class Section {
public:
    // `path`: of keys, empty for the document.
    Section(const Json::Value& object, const Document& document, std::string path)
        : object(object), document(document), path(std::move(path))
    {
    }

    const Json::Value& Member(const char* key, Json::ValueType type) const
    {
        const Json::Value* member = Find(key);
        if (member == nullptr) {
            throw BadInput(document.PlaceOf(object) + ": " + Join(path, key) +
                           ": is missing; \"containerescape-agent policy example\" prints a policy");
        }
        document.Demand(*member, type, Join(path, key));
        return *member;
    }

    Section Object(const char* key) const { return {Member(key, Json::objectValue), document, Join(path, key)}; }

    Policy::Entries Texts(const char* key, std::vector<std::string>& warnings) const
    {
        const Json::Value& list = Member(key, Json::arrayValue);
        Policy::Entries texts;
        for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
            const std::string itemPath = Join(path, key) + "[" + std::to_string(i) + "]";
            document.Demand(list[i], Json::stringValue, itemPath);
            if (!texts.emplace(list[i].asString(), document.PlaceOf(list[i])).second) {
                Warn(list[i], itemPath + ": \"" + list[i].asString() + "\" is there twice", warnings);
            }
        }
        return texts;
    }

    // Whether the member is the second text; false when there is none. Throws when it is neither text.
    bool IsSecond(const char* key, const std::string& first, const std::string& second) const
    {
        const Json::Value* member = Find(key);
        if (member != nullptr && *member != first && *member != second) {
            throw BadInput(document.PlaceOf(*member) + ": " + Join(path, key) + ": must be \"" + first + "\" or \"" +
                           second + "\"");
        }
        return member != nullptr && *member == second;
    }

    void NoteUnknownKeys(std::initializer_list<std::string_view> known, std::vector<std::string>& warnings) const
    {
        for (const std::string& key : object.getMemberNames()) {
            if (std::find(known.begin(), known.end(), key) == known.end()) {
                Warn(object[key], "key " + Join(path, key) + " is unknown and ignored", warnings);
            }
        }
    }

private:
    const Json::Value* Find(const char* key) const { return object.find(key, key + std::strlen(key)); }

    void Warn(const Json::Value& value, const std::string& what, std::vector<std::string>& warnings) const
    {
        warnings.push_back("policy " + document.PlaceOf(value) + ": " + what);
    }

    const Json::Value& object;
    const Document& document;
    std::string path;
};

// One entry's warning.
std::string About(const std::string& place, const char* kind, const std::string& entry, const std::string& what)
{
    return (place.empty() ? "" : "policy " + place + ": ") + kind + " \"" + entry + "\": " + what;
}

bool IsIdentifier(const std::string& name)
{
    return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    });
}

// Why an entry can do nothing on any machine; empty: it can.
std::string WhyNoImage(const std::string& image)
{
    if (image.find_first_of("*?[") != std::string::npos) {
        return "is compared as it stands, it is no pattern";
    }
    const bool isLastComponent = !image.empty() && image.find('/') == std::string::npos;
    return isLastComponent ? "" : "no image is called so: it is compared with the last path component of images";
}

std::string WhyNoCall(const std::string& call)
{
    return IsIdentifier(call) ? "" : "is no name of a system call, it is not watched";
}

std::string WhyNoDirectory(const std::string& directory)
{
    const SDK::PathEntry entry = SDK::ParsePathEntry(directory);
    const std::string reason = entry.error != nullptr         ? entry.error
                               : !entry.path.starts_with('/') ? "not an absolute path"
                                                              : "";
    return reason.empty() ? reason : reason + ", it is not watched";
}

void WarnOfUseless(const char* kind, const Policy::Entries& entries, std::string (*whyUseless)(const std::string&),
                   std::vector<std::string>& warnings)
{
    for (const auto& [entry, place] : entries) {
        if (const std::string reason = whyUseless(entry); !reason.empty()) {
            warnings.push_back(About(place, kind, entry, reason));
        }
    }
}

// Why the directory is not watched, there or not; empty: it is when it is there.
std::string WhyRefused(const std::string& directory, const KernelCoverage& kernel)
{
    const auto watch = kernel.watches.find(directory);
    return watch == kernel.watches.end() ? "there are no file notifications for it" : watch->second;
}

void ExamineDirectory(const std::string& directory, const std::string& place, bool isScopeContainer,
                      const KernelCoverage& kernel, PolicyCoverage& coverage)
{
    if (!WhyNoDirectory(directory).empty()) {
        return;
    }
    const std::string path{SDK::ParsePathEntry(directory).path};
    std::string reason = WhyRefused(directory, kernel);
    const char* consequence = "it is not watched";
    bool isWatched = reason.empty();
    struct stat status {};
    struct statfs fileSystem {};
    if (isWatched && ::stat(path.c_str(), &status) != 0) {
        reason = std::strerror(errno);
        isWatched = isScopeContainer;
        consequence = isWatched ? "it is watched when it is there" : consequence;
    } else if (isWatched && !S_ISDIR(status.st_mode)) {
        reason = "is not a directory";
        consequence = "it alone is watched";
    } else if (isWatched && ::statfs(path.c_str(), &fileSystem) == 0 && fileSystem.f_type == PROC_SUPER_MAGIC) {
        reason = "is the host's own";
        consequence = "what containers do in theirs is not watched";
    }
    coverage.directories += isWatched ? 1U : 0U;
    if (!reason.empty()) {
        coverage.warnings.push_back(About(place, "directory", directory, reason + ", " + consequence));
    }
}

// The calls by which the detectors work that look at every container, whatever the policy lists.
void ExamineDetectors(const KernelCoverage& kernel, PolicyCoverage& coverage)
{
    const std::vector<std::pair<const char*, std::vector<const char*>>> detectors{
        {"Shocker", {"getdents", "getdents64", "open_by_handle_at"}},
        {"brute-forced file handles", {"open_by_handle_at"}},
    };
    for (const auto& [detector, calls] : detectors) {
        const auto missing = std::find_if(calls.begin(), calls.end(), [&kernel](const char* call) {
            return !kernel.events.contains(std::string("syscalls:sys_enter_") + call);
        });
        if (missing == calls.end()) {
            coverage.detectors.emplace_back(detector);
        } else {
            coverage.hasAllDetectors = false;
            coverage.warnings.push_back(std::string("the kernel does not record ") + *missing +
                                        ", so attacks are missed: " + detector);
        }
    }
}

// `call` is an identifier: it must not lead the look-up elsewhere.
bool HasEntryEvent(const std::string& call, const std::string& callEventsDir)
{
    return ::access((callEventsDir + "/sys_enter_" + call).c_str(), F_OK) == 0;
}

std::string Sha256(const std::string& text)
{
    Poco::SHA2Engine hash;
    hash.update(text);
    return Poco::DigestEngine::digestToHex(hash.digest());
}

}  // namespace

Policy LoadPolicy(const std::string& path)
{
    try {
        std::vector<std::string> warnings;
        Policy policy = ParsePolicy(Document::Read("policy", path, warnings));
        policy.warnings.insert(policy.warnings.begin(), warnings.begin(), warnings.end());
        return policy;
    } catch (const BadInput& problem) {
        throw BadInput("policy " + path + ": " + problem.what());
    }
}

Policy ParsePolicy(std::string text)
{
    const Document document(std::move(text));
    const Section whole(document.Root(), document, "");
    const Section content = whole.Object("content");
    const Section detection = content.Object("container_escape_detect_task");

    Policy policy;
    policy.images = content.Texts("image_white_namelist", policy.warnings);
    policy.isScopeContainer = detection.IsSecond("scope", "thread", "container");
    policy.calls = detection.Texts("highrisk_calls", policy.warnings);
    policy.directories = detection.Texts("host_directorys", policy.warnings);
    WarnOfUseless("image", policy.images, WhyNoImage, policy.warnings);
    WarnOfUseless("call", policy.calls, WhyNoCall, policy.warnings);
    WarnOfUseless("directory", policy.directories, WhyNoDirectory, policy.warnings);
    whole.NoteUnknownKeys({"content"}, policy.warnings);
    content.NoteUnknownKeys({"image_white_namelist", "container_escape_detect_task"}, policy.warnings);
    detection.NoteUnknownKeys({"highrisk_calls", "host_directorys", "scope"}, policy.warnings);
    policy.text = document.Text();
    policy.sha256 = Sha256(policy.text);
    return policy;
}

PolicyCoverage Examine(const Policy& policy, const KernelCoverage& kernel)
{
    PolicyCoverage coverage;
    coverage.warnings = policy.warnings;
    ExamineDetectors(kernel, coverage);
    for (const auto& [call, place] : policy.calls) {
        // The kernel has some calls' events under other names: what is recorded needs no look at the names.
        if (kernel.events.contains("syscalls:sys_enter_" + call)) {
            ++coverage.calls;
        } else if (WhyNoCall(call).empty()) {
            const bool isEvent = HasEntryEvent(call, kernel.callEventsDir);
            coverage.warnings.push_back(About(place, "call", call,
                                              isEvent ? "the detection module does not know it, it is not watched"
                                                      : "the kernel has no trace event for it, it is not watched"));
        }
    }
    for (const auto& [directory, place] : policy.directories) {
        ExamineDirectory(directory, place, policy.isScopeContainer, kernel, coverage);
    }
    return coverage;
}

}  // namespace Agent
