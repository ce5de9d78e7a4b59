// SPDX-License-Identifier: Apache-2.0
// Feeds the container registry with trace events in their order, and tells the receivers of notices which processes run
// in containers before they see an event of such a process.
#pragma once

#include <chrono>
#include <memory>
#include <span>
#include <string>
#include <utility>
#include <vector>

#include "host/container/Announcements.h"
#include "host/container/BundleReader.h"
#include "host/container/ContainerRegistry.h"
#include "host/container/MetadataCache.h"
#include "host/container/NoticeReceivers.h"
#include "host/ftrace/TraceObserver.h"
#include "host/sdk/LoudestContainer.h"

namespace Engine {

// A start notice goes out for a process in a container that the receivers were not told about in this generation (see
// Announcements): at the exec that ends the runtime's set-up, and before what shows the process to act: its system
// call, its fork, or an activity that another source reports. A stop notice goes out when a generation ends and for an
// id that a process of the host takes.
//
// Ownership: nothing passed to the constructor is owned; all of it outlives the observer.
// Thread:    the trace task's.
class RegistryObserver : public TraceObserver {
public:
    using Nanoseconds = std::chrono::nanoseconds;

    // Processes that are announced at once when a receiver arrives and after a loss. The others are announced when they
    // act.
    static constexpr std::size_t maxAtOnce = 400;
    // After a loss /proc is read as a whole at most this often.
    static constexpr Nanoseconds resyncPause = std::chrono::seconds{1};
    // After a receiver has refused notices, they are repeated when it has caught up, or at this distance: what is
    // repeated sooner is refused, too.
    static constexpr Nanoseconds repeatPause = std::chrono::milliseconds{20};

    RegistryObserver(ContainerRegistry& registry, SDK::SystemView& system, NoticeReceivers& receivers,
                     MetadataCache& cache, BundleReader& bundles);

    std::vector<std::pair<std::string, std::string>> ObservedEvents() const override;
    void OnEvent(const FtraceMessage& event, const RecordSource& source, TraceSequencer& sequencer) override;
    Origin AdmitSyscall(int tid, const RecordSource& source, const FtraceMessage& event,
                        TraceSequencer& sequencer) override;
    void OnActivity(std::span<const int> pids, TraceSequencer& sequencer) override;
    void OnRound(Nanoseconds now, TraceSequencer& sequencer) override;
    void OnLoss(TraceSequencer& sequencer) override;

private:
    using Entry = ContainerTable::Entry;

    void OnFork(const FtraceMessage& event, const RecordSource& source, TraceSequencer& sequencer);
    void OnExec(const FtraceMessage& event, const RecordSource& source, TraceSequencer& sequencer);
    void OnAttach(const FtraceMessage& event, const RecordSource& source, TraceSequencer& sequencer);

    void Resync(Nanoseconds now, TraceSequencer& sequencer);
    void ExcludeHost(int process, Nanoseconds when, SyscallFilter* filter);

    void Announce(int tid, const Entry& entry, TraceSequencer& sequencer);
    void MakeRoom(std::size_t more, TraceSequencer& sequencer);
    void AnnounceAnew(Announcements::Loss loss, TraceSequencer& sequencer);
    void AnnounceLiving(const std::vector<int>& pids, TraceSequencer& sequencer);
    void EndGeneration(Announcements::Loss loss, TraceSequencer& sequencer);
    void SendStop(int tid, TraceSequencer& sequencer);
    void StopIfAnnounced(int tid, TraceSequencer& sequencer);
    void StopLastBearer(int tid, Nanoseconds when, const RecordSource& source, TraceSequencer& sequencer);
    void RecordNamespaces(int tid, const std::string& container);
    std::shared_ptr<ContainerProcMessage> StartNotice(int tid, const Entry& entry);

    ContainerRegistry& registry;
    SDK::SystemView& system;
    NoticeReceivers& receivers;
    MetadataCache& cache;
    BundleReader& bundles;
    Announcements announcements;
    SDK::LoudestContainer loudest;
    Nanoseconds nextLoudest{0};  // when it is told
    bool mustResync = true;
    bool mustAnnounceAnew = false;
    Nanoseconds lastAnew{0};
    Nanoseconds lastEvent = ContainerTable::longAgo;
    Nanoseconds lastResync{0};
    Nanoseconds lastRound{0};
};

}  // namespace Engine
