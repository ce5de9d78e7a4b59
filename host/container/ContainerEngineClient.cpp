// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerEngineClient.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "host/container/ContainerLog.h"
#include "host/sdk/Config.h"
#include "host/sdk/Counters.h"
#include "sdk/NamespaceUtils.h"

namespace Engine {

namespace {

constexpr int httpOk = 200;
constexpr int maxUnanswered = 3;  // calls in a step: an engine that is stuck is left alone
constexpr char eventsTarget[] = "/events?filters=%7B%22type%22%3A%5B%22container%22%5D%7D";  // {"type":["container"]}
constexpr char listTarget[] = "/containers/json?all=1";

bool HasAnswer(const SDK::DockerClient::Reply& reply)
{
    return reply.status != 0 && reply.error.empty();
}

}  // namespace

ContainerEngineClient::ContainerEngineClient(const std::string& socketPath, MetadataCache& cache,
                                             std::function<bool()> isCancelled, std::chrono::milliseconds timeout)
    : timeout(timeout), socketPath(socketPath), cache(cache), isCancelled(std::move(isCancelled))
{
    if (!MayAnswer()) {
        isUnreachable = true;
        nextAttempt = Clock::time_point::max();
    }
}

bool ContainerEngineClient::MayAnswer() const
{
    return socketPath != SDK::Config::noEngine;
}

void ContainerEngineClient::Step(Clock::time_point time)
{
    now = time;
    cache.Purge(now);
    if (events && !events->Continue()) {
        GiveUp(events->Error().empty() ? "the engine has ended its events" : events->Error());
    }
    if (events || (now >= nextAttempt && Connect())) {
        ReadContainers();
    }
}

// The stream first, then what exists: what changes in between comes with the stream.
bool ContainerEngineClient::Connect()
{
    line.clear();
    events.emplace(socketPath, eventsTarget, [this](std::string_view part) { return TakeEvents(part); });
    if (!events->AwaitStatus(Clock::now() + timeout) || events->Status() != httpOk) {
        GiveUp(events->Error().empty() ? "status " + std::to_string(events->Status()) : events->Error());
        return false;
    }
    return ReadList();
}

bool ContainerEngineClient::ReadList()
{
    EngineDocuments::ListReader list;
    SDK::EngineRequest request(socketPath, listTarget, [&list](std::string_view part) { return list.Take(part); });
    Await(request);
    if (request.Status() != httpOk || (!list.IsComplete() && !list.HasSkipped())) {
        GiveUp(request.Error().empty() ? "unexpected answer to " + std::string{listTarget} : request.Error());
        return false;
    }
    const std::vector<std::string>& ids = list.Ids();
    if (isUnreachable.exchange(false)) {
        ContainerLog::Information("container engine at %s answers again", socketPath);
    }
    changed.insert(ids.begin(), ids.end());
    if (!list.HasSkipped()) {
        cache.KeepOnly({ids.begin(), ids.end()}, now);
    }
    return true;
}

bool ContainerEngineClient::TakeEvents(std::string_view part)
{
    for (;;) {
        const std::size_t end = part.find('\n');
        line.append(part.substr(0, std::min(end, maxLineBytes + 1 - line.size())));
        if (end == std::string_view::npos) {
            return true;
        }
        if (line.size() > maxLineBytes) {
            ++SDK::Counters::Get(SDK::CounterName::engineSkipped);
        } else if (const auto event = EngineDocuments::ParseEvent(line)) {
            Apply(*event);
        }
        line = std::string{};  // its memory, too
        part.remove_prefix(end + 1);
    }
}

void ContainerEngineClient::Apply(const EngineDocuments::Event& event)
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

// Those that have changed, and when it is time the others that are unread. A container that is stuck keeps neither
// itself nor the others from being known later.
void ContainerEngineClient::ReadContainers()
{
    const bool isTime = now >= nextAttempt;
    std::erase_if(unread, [this](const std::string& id) { return changed.count(id) != 0; });
    const std::size_t wanted = changed.size() + (isTime ? unread.size() : 0);
    unread.insert(unread.begin(), changed.begin(), changed.end());
    unread.resize(std::min(unread.size(), EngineDocuments::maxListed));
    changed.clear();
    std::size_t left = std::min(wanted, unread.size());
    for (int unanswered = 0; left > 0 && unanswered < maxUnanswered && !isCancelled(); --left) {
        const std::string id = std::move(unread.front());
        unread.pop_front();
        if (!ReadImageOf(id) || !ReadContainer(id)) {
            unread.push_back(id);
            ++unanswered;
        }
    }
    hasReadAll = true;
    if (unread.empty()) {
        pause = firstPause;
        nextAttempt = Clock::time_point::max();
    } else if (isTime || nextAttempt == Clock::time_point::max()) {
        BackOff();
    }
}

// The engine answers about a container that it is starting only when that is done, and its program may attack by then.
// About an image it answers at once.
bool ContainerEngineClient::ReadImageOf(const std::string& id)
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

bool ContainerEngineClient::ReadContainer(const std::string& id)
{
    const SDK::DockerClient::Reply reply = Ask("/containers/" + id + "/json");
    std::optional<EngineDocuments::Inspected> inspected;
    if (reply.status == httpOk && HasAnswer(reply)) {
        inspected = EngineDocuments::ParseInspected(reply.body);
    }
    if (inspected && inspected->info.id == id) {
        if (inspected->pid > 0) {
            SDK::NamespaceUtils::GetProcessNamespace(inspected->pid, inspected->info.namespaces);
        }
        if (!cache.Put(std::move(inspected->info))) {
            ContainerLog::Debug("no room for container %s, its alarms carry no names", id);
        }
    }
    return HasAnswer(reply);
}

SDK::DockerClient::Reply ContainerEngineClient::Ask(const std::string& target)
{
    bool isTooLong = false;
    SDK::DockerClient::Reply reply;
    SDK::EngineRequest request(socketPath, target, [&](std::string_view part) {
        isTooLong = reply.body.size() + part.size() > EngineDocuments::maxElementBytes;
        reply.body.append(isTooLong ? "" : part);
        return !isTooLong;
    });
    Await(request);
    reply.status = request.Status();
    if (isTooLong) {  // and would be the next time
        reply.body.clear();
        ++SDK::Counters::Get(SDK::CounterName::engineSkipped);
    } else {
        reply.error = request.Error();
    }
    if (!HasAnswer(reply)) {
        ++SDK::Counters::Get(SDK::CounterName::engineFailures);
    }
    return reply;
}

void ContainerEngineClient::Await(SDK::EngineRequest& request) const
{
    const SDK::EngineRequest::Deadline deadline = Clock::now() + timeout;
    while (request.Continue() && request.Wait(deadline)) {
    }
}

void ContainerEngineClient::TryNow()
{
    if (!events) {
        pause = firstPause;
        nextAttempt = Clock::time_point{};
    }
}

void ContainerEngineClient::GiveUp(const std::string& why)
{
    ++SDK::Counters::Get(SDK::CounterName::engineFailures);
    if (!isUnreachable.exchange(true)) {
        ContainerLog::Warning("container engine at %s: %s; alarms carry no names of containers, trying again",
                              socketPath, why);
    }
    events.reset();
    changed.clear();
    unread.clear();
    BackOff();
}

void ContainerEngineClient::BackOff()
{
    nextAttempt = now + pause;
    pause = std::min(pause * 2, longestPause);
}

}  // namespace Engine
