// SPDX-License-Identifier: Apache-2.0
#include "host/container/EngineFollower.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "host/container/ContainerLog.h"
#include "host/sdk/Counters.h"
#include "sdk/NamespaceUtils.h"

namespace Engine {

namespace {

constexpr int httpOk = 200;
constexpr int maxUnanswered = 3;
constexpr char eventsTarget[] = "/events?filters=%7B%22type%22%3A%5B%22container%22%5D%7D";  // {"type":["container"]}
constexpr char listTarget[] = "/containers/json?all=1";

bool HasAnswer(const SDK::DockerClient::Reply& reply)
{
    return reply.status != 0 && reply.error.empty();
}

}  // namespace

EngineFollower::EngineFollower(const std::string& socketPath, MetadataCache& cache, std::function<bool()> isCancelled)
    : socketPath(socketPath), client(socketPath), cache(cache), isCancelled(std::move(isCancelled))
{
}

void EngineFollower::Step(Clock::time_point now)
{
    cache.Purge(now);
    if (stream) {
        FollowEvents(now);
    } else if (now >= nextAttempt) {
        Connect(now);
    }
}

// The stream first, then what exists: what changes in between comes with the stream.
void EngineFollower::Connect(Clock::time_point now)
{
    std::string error;
    stream = SDK::EngineStream::Open(socketPath, eventsTarget, SDK::DockerClient::defaultTimeout, error);
    if (!stream) {
        GiveUp(error, now);
        return;
    }
    if (!ReadAll(now)) {
        return;
    }
    if (std::exchange(isUnreachable, false)) {
        ContainerLog::Information("container engine at %s answers again", socketPath);
    }
    pause = firstPause;
    nextAttempt = Clock::time_point::max();
    hasReadAll = true;
    FollowEvents(now);  // some may have come along with the stream's head
}

bool EngineFollower::ReadAll(Clock::time_point now)
{
    const SDK::DockerClient::Reply reply = client.Get(listTarget);
    const std::optional<std::vector<std::string>> ids =
        reply.status == httpOk && reply.error.empty() ? EngineDocuments::ParseList(reply.body) : std::nullopt;
    if (!ids) {
        GiveUp(reply.error.empty() ? "unexpected answer to " + std::string{listTarget} : reply.error, now);
        return false;
    }
    int unanswered = 0;
    for (const std::string& id : *ids) {
        // One stuck container must not keep the others from being known; an engine that is stuck is left alone.
        unanswered += ReadOne(id) ? 0 : 1;
        if (unanswered > maxUnanswered || isCancelled()) {
            GiveUp("does not answer about containers", now);
            return false;
        }
    }
    cache.KeepOnly({ids->begin(), ids->end()}, now);
    return true;
}

bool EngineFollower::ReadOne(const std::string& id)
{
    const SDK::DockerClient::Reply reply = Ask("/containers/" + id + "/json");
    if (!HasAnswer(reply)) {
        return false;
    }
    std::optional<EngineDocuments::Inspected> inspected;
    if (reply.status == httpOk) {
        inspected = EngineDocuments::ParseInspected(reply.body);
    }
    if (inspected && inspected->info.id == id) {
        TakeInspected(std::move(*inspected));
    }
    return true;
}

// The engine answers about a container that it is starting only when that is done, and its program may attack by then.
// About an image it answers at once.
bool EngineFollower::ReadImageOf(const std::string& id)
{
    const std::shared_ptr<ContainerInfo> known = cache.Find(id);
    if (known == nullptr || !known->imageId.empty() || !EngineDocuments::IsImageName(known->imageName)) {
        return true;
    }
    const SDK::DockerClient::Reply reply = Ask("/images/" + known->imageName + "/json");
    if (reply.status == httpOk && HasAnswer(reply)) {
        ContainerInfo info = *known;
        info.imageId = EngineDocuments::ParseImageId(reply.body);
        cache.Put(std::move(info));
    }
    return HasAnswer(reply);
}

SDK::DockerClient::Reply EngineFollower::Ask(const std::string& target)
{
    SDK::DockerClient::Reply reply = client.Get(target);
    if (!HasAnswer(reply)) {
        ++SDK::Counters::Get(SDK::CounterName::engineFailures);
    }
    return reply;
}

void EngineFollower::TakeInspected(EngineDocuments::Inspected inspected)
{
    if (inspected.pid > 0) {
        SDK::NamespaceUtils::GetProcessNamespace(inspected.pid, inspected.info.namespaces);
    }
    const std::string id = inspected.info.id;
    if (!cache.Put(std::move(inspected.info))) {
        ContainerLog::Debug("no room for container %s, its alarms carry no names", id);
    }
}

void EngineFollower::FollowEvents(Clock::time_point now)
{
    std::vector<std::string> lines;
    const SDK::EngineStream::State state = stream->ReadLines(lines);
    for (const std::string& line : lines) {
        if (const auto event = EngineDocuments::ParseEvent(line)) {
            Apply(*event, now);
        }
    }
    InspectChanged();
    if (state != SDK::EngineStream::State::Open) {
        GiveUp(stream->Error().empty() ? "the engine has ended its events" : stream->Error(), now);
    }
}

void EngineFollower::Apply(const EngineDocuments::Event& event, Clock::time_point now)
{
    const std::string& id = event.info.id;
    if (event.action == "create") {
        // A container that is removed at once can no longer be inspected; the event alone names it.
        cache.Put(event.info);
        changed.insert(id);
    } else if (event.action == "start" || event.action == "rename") {
        changed.insert(id);
    } else if (event.action == "die") {
        cache.ForgetNamespaces(id);  // it may start again, in others
    } else if (event.action == "destroy") {
        cache.MarkGone(id, now);
        changed.erase(id);
    }
}

void EngineFollower::InspectChanged()
{
    while (!changed.empty() && !isCancelled()) {
        const std::string id = *changed.begin();
        changed.erase(changed.begin());
        if (ReadImageOf(id)) {
            ReadOne(id);
        }
    }
}

void EngineFollower::GiveUp(const std::string& why, Clock::time_point now)
{
    stream.reset();
    changed.clear();
    ++SDK::Counters::Get(SDK::CounterName::engineFailures);
    if (!std::exchange(isUnreachable, true)) {
        ContainerLog::Warning("container engine at %s: %s; alarms carry no names of containers, trying again",
                              socketPath, why);
    }
    nextAttempt = now + pause;
    pause = std::min(pause * 2, longestPause);
}

}  // namespace Engine
