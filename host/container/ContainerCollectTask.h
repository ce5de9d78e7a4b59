// SPDX-License-Identifier: Apache-2.0
// The task "container_collect_task": answers about containers, and takes registrations for notices of their processes.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "framework/Task.h"
#include "host/container/BundleReader.h"
#include "host/container/ContainerRegistry.h"
#include "host/container/ContainerStatus.h"
#include "host/container/ContainerView.h"
#include "host/container/EngineClient.h"
#include "host/container/MetadataCache.h"
#include "host/container/NoticeReceivers.h"
#include "host/container/RegistryObserver.h"
#include "host/container/SocketWatch.h"
#include "host/ftrace/TraceObserver.h"
#include "host/sdk/ContainerNames.h"
#include "messages/ContainerMessages.h"

namespace Engine {

// Reads what engines keep beside containers, while container_collect_task may wait for an engine. Thread: its own.
class ContainerBundleTask : public Framework::Task {
public:
    static constexpr char taskName[] = "container_bundle_task";

    // `bundles`: not owned.
    explicit ContainerBundleTask(BundleReader& bundles);
    int Run() override;

private:
    BundleReader& bundles;
};

// Ownership: `system` is not owned and outlives the task; neither is the trace task, which must have been left
//            (Detach) before it goes.
// Thread:    its own asks the engines, its BundleTask's reads bundles; the registry and the notices live on the trace
// task's.
class ContainerCollectTask : public Framework::Task,
                             public ContainerMetaInfo,
                             public SDK::ContainerNames,
                             public ContainerStatus,
                             public AbstructMessage<ContainerRegisterMessage>::Receiver {
public:
    static constexpr char taskName[] = "container_collect_task";

    ContainerCollectTask(const std::vector<SDK::EngineAddress>& addresses, SDK::SystemView& system);
    ~ContainerCollectTask() override;

    // Begins to follow the trace events. False when they cannot be had: /proc alone tells then which container a
    // process is in, and no notices are sent. Thread: the module's.
    bool Attach(TraceObservable& trace);
    // Returns when the trace task will not call any more. Without effect when not attached.
    void Detach();

    SDK::ContainerResolver& Resolver() { return view; }

    // To be run beside this one, and not longer.
    Framework::Task& BundleTask() { return bundleTask; }

    // Reads what the engines know for the first time: names and images are in the cache when this task has started. An
    // engine that hangs delays the start by some time-outs of its client, five at most.
    int Init() override;
    int UnInit() override;
    int Run() override;

    // Takes a registration at once, on the sender's thread: after a withdrawal the requester may be gone the next
    // moment, and nothing may be sent to it then.
    int EnqueueMsg(std::shared_ptr<Framework::Message>& message) override;
    int Receive(const ContainerRegisterMessage& message) override;

    bool GetContainerById(const std::string& containerId, std::shared_ptr<ContainerInfo>& info) override;
    bool GetContainerByPid(int pid, std::shared_ptr<ContainerInfo>& info) override;
    bool IsAvailable() override;

    // How long after the start engines are waited for.
    static constexpr std::chrono::minutes engineStarts{1};
    bool IsAwaited(const std::string& id) const override;
    std::vector<EngineState> Engines() const override;
    std::shared_ptr<const ContainerInfo> Find(const std::string& id) const override { return cache.Find(id); }
    Sizes Count() const override { return {table.Size(), cache.Size()}; }

private:
    using Clock = EngineClient::Clock;

    void StepAll();
    bool Ask(const std::string& id);
    bool IsAnyRead() const;
    bool AreEnginesAwaited() const;
    int PauseMilliseconds() const;

    SocketWatch socketWatch;
    MetadataCache cache;
    BundleReader bundles;
    ContainerBundleTask bundleTask{bundles};
    ContainerTable table;
    ContainerGroups groups;
    ContainerView view;
    ContainerRegistry registry;
    NoticeReceivers receivers;
    RegistryObserver observer;
    std::vector<std::unique_ptr<EngineClient>> engines;
    bool isMoreWanted = false;
    const Clock::time_point begun = Clock::now();
    std::atomic<TraceObservable*> trace{nullptr};
};

}  // namespace Engine
