// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerCollectTask.h"

#include <sys/epoll.h>

#include <algorithm>
#include <chrono>
#include <iterator>

#include "host/container/CriEngineClient.h"
#include "host/container/DockerEngineClient.h"

namespace Engine {

namespace {

constexpr unsigned int queueCapacity = 1024;
constexpr int maxHandlers = 16;
constexpr int longestWaitMs = 10000;  // the cache drops what is old meanwhile

std::vector<std::string> PathsOf(const std::vector<SDK::EngineAddress>& addresses)
{
    std::vector<std::string> paths;
    std::transform(addresses.begin(), addresses.end(), std::back_inserter(paths),
                   [](const SDK::EngineAddress& address) { return address.path; });
    return paths;
}

}  // namespace

ContainerBundleTask::ContainerBundleTask(BundleReader& bundles)
    : Framework::Task(taskName, "", Framework::TaskCondition::EventLoop, 1), bundles(bundles)
{
}

int ContainerBundleTask::Run()
{
    bundles.ReadWanted();
    return Framework::Task::Run();
}

ContainerCollectTask::ContainerCollectTask(const std::vector<SDK::EngineAddress>& addresses, SDK::SystemView& system)
    : Framework::Task(taskName, "", Framework::TaskCondition::EventLoop, queueCapacity),
      socketWatch(PathsOf(addresses)),
      bundles(system, BundleFinder{}, cache,
              {[this] { bundleTask.Waiter().Wake(); }, [this] { Waiter().Wake(); },
               [this](const std::string& id) {
                   return Ask(id);
               }}),
      view(table, groups, cache, system),
      registry(table, groups, system),
      observer(registry, system, receivers, cache, bundles)
{
    for (const SDK::EngineAddress& address : addresses) {
        const int number = static_cast<int>(engines.size()) + 1;
        if (address.IsCri()) {
            engines.push_back(
                std::make_unique<CriEngineClient>(address, cache, number, [this] { bundles.AskAgain(); }));
        } else {
            engines.push_back(
                std::make_unique<DockerEngineClient>(address, cache, number, [this] { return isCancelled(); }));
        }
    }
}

ContainerCollectTask::~ContainerCollectTask()
{
    Detach();
}

bool ContainerCollectTask::Attach(TraceObservable& observable)
{
    if (!observable.AddObserver(observer)) {
        return false;
    }
    trace = &observable;
    view.UseFilter(observable.Filter());
    observable.RequestRound();
    return true;
}

void ContainerCollectTask::Detach()
{
    if (TraceObservable* observable = trace.exchange(nullptr); observable != nullptr) {
        observable->RemoveObserver(observer);
        view.UseFilter(nullptr);
    }
}

int ContainerCollectTask::Init()
{
    if (socketWatch.Fd() >= 0) {
        Waiter().Add(socketWatch.Fd(), EPOLLIN, [this](std::uint32_t) {
            if (socketWatch.HasAppeared()) {
                std::for_each(engines.begin(), engines.end(), [](auto& engine) { engine->TryNow(); });
            }
        });
    }
    StepAll();
    return Framework::Task::Init();
}

int ContainerCollectTask::UnInit()
{
    Waiter().Remove(socketWatch.Fd());
    return Framework::Task::UnInit();
}

int ContainerCollectTask::Run()
{
    std::vector<int> watched;
    for (const auto& engine : engines) {
        const int fd = engine->Fd();
        if (fd >= 0 && Waiter().Add(fd, EPOLLIN, [](std::uint32_t) {})) {  // it need only wake
            watched.push_back(fd);
        }
    }
    Waiter().WaitAndHandleEvent(PauseMilliseconds(), maxHandlers);
    for (const int fd : watched) {
        Waiter().Remove(fd);  // Step may close it
    }
    BulkConsumeMsg(static_cast<int>(queueCapacity));
    cache.Purge(Clock::now());
    isMoreWanted = bundles.AskNext();
    StepAll();
    return 0;
}

void ContainerCollectTask::StepAll()
{
    for (const auto& engine : engines) {
        if (!isCancelled()) {
            engine->Step(Clock::now());
        }
    }
}

// False when one of the engines does not know the container.
bool ContainerCollectTask::Ask(const std::string& id)
{
    bool isKnown = true;
    for (const auto& engine : engines) {
        isKnown = (isCancelled() || engine->Read(id)) && isKnown;
    }
    return isKnown;
}

int ContainerCollectTask::EnqueueMsg(std::shared_ptr<Framework::Message>& message)
{
    if (const auto* registration = dynamic_cast<const ContainerRegisterMessage*>(message.get())) {
        return Receive(*registration);
    }
    return Framework::Task::EnqueueMsg(message);
}

int ContainerCollectTask::Receive(const ContainerRegisterMessage& message)
{
    if (message.requester == nullptr) {
        return -1;
    }
    if (!message.subscribe) {
        receivers.Remove(*message.requester);
        return 0;
    }
    receivers.Add(*message.requester);
    if (TraceObservable* observable = trace; observable != nullptr) {
        observable->RequestRound();
    }
    return 0;
}

bool ContainerCollectTask::GetContainerById(const std::string& containerId, std::shared_ptr<ContainerInfo>& info)
{
    std::shared_ptr<ContainerInfo> found = cache.FindVouchedFor(containerId);
    if (found == nullptr) {
        return false;
    }
    info = std::move(found);
    return true;
}

bool ContainerCollectTask::GetContainerByPid(int pid, std::shared_ptr<ContainerInfo>& info)
{
    std::string id;
    return view.ContainerOf(pid, id) == 0 && !id.empty() && GetContainerById(id, info);
}

bool ContainerCollectTask::IsAvailable()
{
    return (IsAnyRead() || trace == nullptr || registry.IsSynced()) &&
           std::all_of(engines.begin(), engines.end(),
                       [](const auto& engine) { return engine->HasReadAll() || engine->IsUnreachable(); });
}

bool ContainerCollectTask::IsAnyRead() const
{
    return std::any_of(engines.begin(), engines.end(), [](const auto& engine) { return engine->HasReadAll(); });
}

bool ContainerCollectTask::IsAwaited(const std::string& id) const
{
    return bundles.IsAwaited(id) || (cache.Find(id) == nullptr && AreEnginesAwaited());
}

// At boot they start after the agent. Where none of the usual ones has a socket yet, any may come.
bool ContainerCollectTask::AreEnginesAwaited() const
{
    const bool isAnyRead = IsAnyRead();
    return Clock::now() - begun < engineStarts &&
           std::any_of(engines.begin(), engines.end(), [isAnyRead](const auto& engine) {
               return !engine->HasReadAll() && (!isAnyRead || engine->IsExpected());
           });
}

std::vector<SDK::ContainerNames::EngineState> ContainerCollectTask::Engines() const
{
    std::vector<EngineState> states;
    std::transform(engines.begin(), engines.end(), std::back_inserter(states),
                   [](const auto& engine) { return engine->State(); });
    return states;
}

int ContainerCollectTask::PauseMilliseconds() const
{
    auto next = Clock::now() + std::chrono::milliseconds{isMoreWanted ? 0 : longestWaitMs};
    for (const auto& engine : engines) {
        next = std::min(next, engine->NextStep());
    }
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(next - Clock::now());
    return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, longestWaitMs));
}

}  // namespace Engine
