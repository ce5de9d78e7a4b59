// SPDX-License-Identifier: Apache-2.0
#include "host/container/ContainerCollectTask.h"

#include <sys/epoll.h>

#include <algorithm>
#include <chrono>

namespace Engine {

namespace {

constexpr unsigned int queueCapacity = 1024;
constexpr int maxHandlers = 16;
constexpr int longestWaitMs = 10000;  // the cache drops what is old meanwhile

}  // namespace

ContainerCollectTask::ContainerCollectTask(const std::string& socketPath, SDK::SystemView& system)
    : Framework::Task(taskName, "", Framework::TaskCondition::EventLoop, queueCapacity),
      socketWatch(socketPath),
      bundles(system, BundleFinder{}, cache, [this] { Waiter().Wake(); }),
      view(table, groups, system),
      registry(table, groups, system),
      observer(registry, system, receivers, cache, bundles),
      engine(socketPath, cache, [this] { return isCancelled(); })
{
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
                engine.TryNow();
            }
        });
    }
    engine.Step(ContainerEngineClient::Clock::now());
    return Framework::Task::Init();
}

int ContainerCollectTask::UnInit()
{
    Waiter().Remove(socketWatch.Fd());
    return Framework::Task::UnInit();
}

int ContainerCollectTask::Run()
{
    const int fd = engine.Fd();
    const bool isWatched = fd >= 0 && Waiter().Add(fd, EPOLLIN, [](std::uint32_t) {});  // it need only wake
    Waiter().WaitAndHandleEvent(PauseMilliseconds(), maxHandlers);
    if (isWatched) {
        Waiter().Remove(fd);  // Step may close it
    }
    BulkConsumeMsg(static_cast<int>(queueCapacity));
    bundles.Step();
    if (!isCancelled()) {
        engine.Step(ContainerEngineClient::Clock::now());
    }
    return 0;
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
    return engine.HasReadAll() || (engine.IsUnreachable() && (trace == nullptr || registry.IsSynced()));
}

bool ContainerCollectTask::IsAwaited(const std::string& id) const
{
    return bundles.IsAwaited(id) ||
           (engine.MayAnswer() && !engine.HasReadAll() && ContainerEngineClient::Clock::now() - begun < engineStarts);
}

int ContainerCollectTask::PauseMilliseconds() const
{
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(engine.NextStep() - ContainerEngineClient::Clock::now());
    return static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, longestWaitMs));
}

}  // namespace Engine
