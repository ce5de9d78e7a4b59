// SPDX-License-Identifier: Apache-2.0
#include "host/container/CriEngineClient.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "host/container/ContainerLog.h"
#include "host/container/EngineDocuments.h"
#include "host/container/OciBundle.h"
#include "host/sdk/Counters.h"
#include "host/sdk/JsonMembers.h"

namespace Engine {

namespace {

// From beside this one. Null, with the reason, when it cannot be loaded. What it starts goes on, so it stays.
Cri::AskFunction* LoadLibrary(std::string& error)
{
    Dl_info self{};
    ::dladdr(reinterpret_cast<const void*>(&LoadLibrary), &self);
    std::string path = self.dli_fname == nullptr ? "" : self.dli_fname;
    path.replace(path.rfind('/') + 1, std::string::npos, Cri::libraryName);
    void* const library = ::dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    void* const function = library == nullptr ? nullptr : ::dlsym(library, Cri::functionName);
    if (function == nullptr) {
        error = ::dlerror();
    }
    return reinterpret_cast<Cri::AskFunction*>(function);
}

std::string Cut(const std::string& text)
{
    return text.substr(0, EngineDocuments::maxTextBytes);
}

// Containerd tells what the container was asked for with, in which a false one is left out; CRI-O itself.
std::optional<bool> IsPrivileged(const std::string& details)
{
    using SDK::JsonMembers::Member;
    const std::optional<Json::Value> root = SDK::JsonMembers::Parse(details);
    if (!root) {
        return std::nullopt;
    }
    const Json::Value& config = Member(*root, "config");
    const Json::Value& asked = Member(Member(Member(config, "linux"), "security_context"), "privileged");
    const Json::Value& told = Member(*root, "privileged");
    if (!told.isBool() && !config.isObject()) {
        return std::nullopt;
    }
    return (told.isBool() && told.asBool()) || (asked.isBool() && asked.asBool());
}

}  // namespace

void CriEngineClient::Step(Clock::time_point time)
{
    now = time;
    if (isConnected || now < nextAttempt) {
        return;
    }
    bool isRoots = false;
    const Cri::Answer answer = Ask("", isRoots);
    if (answer.outcome != Cri::Outcome::Known) {
        Fail(answer);
        return;
    }
    ContainerLog::Information("container engine at %s: %s", address.Text(), Cut(answer.text));
    nextAttempt = Clock::time_point::max();
    Reached();
    hasReadAll = true;
    reached();
}

bool CriEngineClient::Read(const std::string& id)
{
    if (!isConnected || !EngineDocuments::IsContainerId(id)) {
        return true;
    }
    bool isRoots = false;
    const Cri::Answer answer = Ask(id, isRoots);
    if (answer.outcome == Cri::Outcome::Failed || answer.outcome == Cri::Outcome::NotOffered) {
        Fail(answer);
        return true;
    }
    pause = firstPause;
    if (answer.outcome == Cri::Outcome::Refused) {
        ++SDK::Counters::Get(SDK::CounterName::engineSkipped);
        ContainerLog::Warning("container engine at %s, about container %s: %s", address.Text(), id, Cut(answer.text));
    } else if (answer.outcome == Cri::Outcome::Known) {
        cache.Put(ToContainerInfo(id, answer), {number, isRoots, false});
    }
    return answer.outcome != Cri::Outcome::Unknown;
}

// On a connection of its own: the engine may have been another one the last time.
Cri::Answer CriEngineClient::Ask(const std::string& id, bool& isRoots) const
{
    Cri::Answer answer;
    const SDK::FileDescriptor connection = SDK::EngineSocket::Connect(address.path);
    SDK::FileDescriptor given(connection ? ::fcntl(connection.Get(), F_DUPFD_CLOEXEC, 0) : -1);
    if (!given) {
        answer.text = std::strerror(errno);
        return answer;
    }
    static Cri::AskFunction* ask = nullptr;
    if (ask == nullptr && (ask = LoadLibrary(answer.text)) == nullptr) {
        return answer;
    }
    isRoots = SDK::EngineSocket::IsRoots(connection.Get());
    ask(given.Release(), id, timeout, answer);
    ::shutdown(connection.Get(), SHUT_RDWR);  // or an engine that talks on and on would keep gRPC at it
    return answer;
}

// An engine at one of the usual places need not offer the interface: the one below Docker often does not.
void CriEngineClient::Fail(const Cri::Answer& answer)
{
    const bool isNone = answer.outcome == Cri::Outcome::NotOffered && !address.isAsked;
    GiveUp(isNone ? std::string{} : Cut(answer.text), SDK::EngineSocket::Protocol::Http1);
}

ContainerInfo ToContainerInfo(const std::string& id, const Cri::Answer& answer)
{
    ContainerInfo info;
    info.id = id;
    info.engine = "cri";
    info.privileged = IsPrivileged(answer.details);
    info.name = Cut(answer.name);
    info.pod = {Cut(answer.pod.name), Cut(answer.pod.nameSpace), Cut(answer.pod.uid)};
    for (const std::string& image : answer.images) {
        if (info.imageName.empty() && !OciBundle::IsImageId(image)) {
            info.imageName = Cut(image);
        }
    }
    for (const std::string& reference : answer.references) {
        if (info.imageId.empty() && OciBundle::IsImageId(reference)) {
            info.imageId = OciBundle::ImageId(reference);
        }
        if (info.imageDigest.empty()) {
            info.imageDigest = EngineDocuments::DigestIn(reference);
        }
    }
    for (const auto& [key, value] : answer.labels) {
        EngineDocuments::AddLabel(key, value, info.labels);
    }
    for (const std::string& mount : answer.mounts) {
        if (info.mountDestinations.size() < EngineDocuments::maxMounts && OciBundle::IsOfItsOwner(mount)) {
            info.mountDestinations.push_back(Cut(mount));
        }
    }
    return info;
}

}  // namespace Engine
