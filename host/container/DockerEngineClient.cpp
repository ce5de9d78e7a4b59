// SPDX-License-Identifier: Apache-2.0
#include "host/container/DockerEngineClient.h"

#include <algorithm>
#include <utility>
#include <vector>

#include "host/container/ContainerLog.h"
#include "host/sdk/Counters.h"
#include "sdk/NamespaceUtils.h"

namespace Engine {

namespace {

constexpr int httpOk = 200;
constexpr int maxUnanswered = 3;  // calls in a step: an engine that is stuck is left alone
constexpr char eventsTarget[] = "/events?filters=%7B%22type%22%3A%5B%22container%22%5D%7D";  // {"type":["container"]}
constexpr char listTarget[] = "/containers/json?all=1";

}  // namespace

void DockerEngineClient::Step(Clock::time_point time)
{
    now = time;
    if (events && !events->Continue()) {
        Fail(*events, "the engine has ended its events");
    }
    if (events || (now >= nextAttempt && Connect())) {
        ReadContainers();
    }
}

// The stream first, then what exists: what changes in between comes with the stream.
bool DockerEngineClient::Connect()
{
    line.clear();
    events.emplace(address.path, eventsTarget, [this](std::string_view part) { return TakeEvents(part); });
    if (!events->AwaitStatus(Clock::now() + timeout) || events->Status() != httpOk) {
        Fail(*events, "status " + std::to_string(events->Status()));
        return false;
    }
    return ReadList();
}

bool DockerEngineClient::ReadList()
{
    EngineDocuments::ListReader list;
    SDK::EngineRequest request(address.path, listTarget, [&list](std::string_view part) { return list.Take(part); });
    Await(request);
    if (request.Status() != httpOk || (!list.IsComplete() && !list.HasSkipped())) {
        Fail(request, std::string{"unexpected answer to "}.append(listTarget));
        return false;
    }
    const std::vector<std::string>& ids = list.Ids();
    Reached();
    changed.insert(ids.begin(), ids.end());
    if (!list.HasSkipped()) {
        cache.KeepOnly({ids.begin(), ids.end()}, number, now);
    }
    return true;
}

bool DockerEngineClient::TakeEvents(std::string_view part)
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

void DockerEngineClient::Apply(const EngineDocuments::Event& event)
{
    const std::string& id = event.info.id;
    if (event.action == "create") {
        // A container that is removed at once can no longer be inspected; the event alone names it.
        Keep(event.info, events->IsRoots());
        changed.insert(id);
    } else if (event.action == "start" || event.action == "rename") {
        changed.insert(id);
    } else if (event.action == "die") {
        cache.ForgetNamespaces(id);  // it may start again, in others
    } else if (event.action == "destroy") {
        cache.MarkGone(id, number, now);
        changed.erase(id);
    }
}

// Those that have changed, and when it is time the others that are unread. A container that is stuck keeps neither
// itself nor the others from being known later.
void DockerEngineClient::ReadContainers()
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
        if (!ReadAbout(id)) {
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
bool DockerEngineClient::ReadAbout(const std::string& id)
{
    const auto known = cache.Find(id);
    const bool hasImage = known != nullptr && !known->imageName.empty();
    return (!hasImage || ReadImageOf(id)) && ReadContainer(id) && (hasImage || ReadImageOf(id));
}

bool DockerEngineClient::ReadImageOf(const std::string& id)
{
    const auto known = cache.Find(id);
    if (known == nullptr || !known->imageDigest.empty()) {
        return true;
    }
    const std::string& image = known->imageId.empty() ? known->imageName : known->imageId;
    if (!EngineDocuments::IsImageName(image)) {
        return true;
    }
    const Answer answer = Ask("/images/" + image + "/json");
    if (answer.status == httpOk && answer.IsThere()) {
        ContainerInfo info = EngineDocuments::ParseImage(answer.body);
        info.id = id;
        Keep(std::move(info), answer.isRoots);
    }
    return answer.IsThere();
}

bool DockerEngineClient::ReadContainer(const std::string& id)
{
    const Answer answer = Ask("/containers/" + id + "/json");
    std::optional<EngineDocuments::Inspected> inspected;
    if (answer.status == httpOk && answer.IsThere()) {
        inspected = EngineDocuments::ParseInspected(answer.body);
    }
    if (inspected && inspected->info.id == id) {
        if (inspected->pid > 0) {
            SDK::NamespaceUtils::GetProcessNamespace(inspected->pid, inspected->info.namespaces);
        }
        if (!Keep(std::move(inspected->info), answer.isRoots)) {
            ContainerLog::Debug("no room for container %s, its alarms carry no names", id);
        }
    }
    return answer.IsThere();
}

bool DockerEngineClient::Keep(ContainerInfo info, bool isRoots)
{
    info.engine = address.kind;
    return cache.Put(std::move(info), {number, isRoots, true});
}

DockerEngineClient::Answer DockerEngineClient::Ask(const std::string& target)
{
    bool isTooLong = false;
    Answer answer;
    SDK::EngineRequest request(address.path, target, [&](std::string_view part) {
        isTooLong = answer.body.size() + part.size() > EngineDocuments::maxElementBytes;
        answer.body.append(isTooLong ? "" : part);
        return !isTooLong;
    });
    Await(request);
    answer.status = request.Status();
    answer.isRoots = request.IsRoots();
    if (isTooLong) {  // and would be the next time
        answer.body.clear();
        ++SDK::Counters::Get(SDK::CounterName::engineSkipped);
    } else {
        answer.error = request.Error();
    }
    if (!answer.IsThere()) {
        ++SDK::Counters::Get(SDK::CounterName::engineFailures);
    }
    return answer;
}

void DockerEngineClient::Await(SDK::EngineRequest& request) const
{
    const SDK::EngineRequest::Deadline deadline = Clock::now() + timeout;
    while (request.Continue() && request.Wait(deadline)) {
    }
}

// `why`: unless the request itself tells.
void DockerEngineClient::Fail(const SDK::EngineRequest& request, const std::string& why)
{
    GiveUp(request.Error().empty() ? why : request.Error(), SDK::EngineSocket::Protocol::Http2);
    events.reset();
    changed.clear();
    unread.clear();
}

}  // namespace Engine
