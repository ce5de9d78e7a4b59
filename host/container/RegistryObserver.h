// SPDX-License-Identifier: Apache-2.0
// Feeds the container registry with trace events in their order, and tells those who asked which processes run in
// containers before they see an event of such a process.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/container/ContainerRegistry.h"
#include "host/container/MetadataCache.h"
#include "host/container/NoticeLedger.h"
#include "host/container/NoticeReceivers.h"
#include "host/ftrace/TraceObserver.h"

namespace Engine {

// A start notice goes out for a process that is in a container without a parent there that the receivers saw: at the
// exec that ends the runtime's set-up, at a receiver's arrival, and when a process acts that the receivers may not know
// (any more), be it by a system call or by what makes somebody ask about its container, such as a file notification.
// A stop notice goes out for one that ended some seconds ago, whose id a process of the host takes, that
// was moved out of its container, or that must make room for others; see NoticeLedger.
//
// Ownership: nothing passed to the constructor is owned; all of it outlives the observer.
// Thread:    the trace task's.
class RegistryObserver : public TraceObserver {
public:
    using Nanoseconds = std::chrono::nanoseconds;

    // Processes that are announced at once to a receiver that arrives; its queue must hold them, and it may not run
    // yet. The others are announced when they act.
    static constexpr std::size_t maxAtArrival = 400;
    // For so long after a receiver arrived it may not get the fork events yet that it will ask for.
    static constexpr Nanoseconds settling = std::chrono::seconds{10};
    // After a loss /proc is read as a whole at most this often.
    static constexpr Nanoseconds resyncPause = std::chrono::seconds{1};

    RegistryObserver(ContainerRegistry& registry, ProcReader& reader, NoticeReceivers& receivers, MetadataCache& cache);

    std::vector<std::pair<std::string, std::string>> ObservedEvents() const override;
    void OnEvent(const FtraceMessage& event, TraceSequencer& sequencer) override;
    Origin AdmitSyscall(int tid, int process, const FtraceMessage& event, TraceSequencer& sequencer) override;
    void OnRound(Nanoseconds now, TraceSequencer& sequencer) override;
    void OnLoss(TraceSequencer& sequencer) override;

private:
    void OnFork(const FtraceMessage& event, TraceSequencer& sequencer);
    void OnExec(const FtraceMessage& event, TraceSequencer& sequencer);
    void OnAttach(const FtraceMessage& event, TraceSequencer& sequencer);
    void OnExit(const FtraceMessage& event);

    void Resync(Nanoseconds now, TraceSequencer& sequencer);
    void AnnounceProcesses(Nanoseconds now, TraceSequencer& sequencer);
    void AnnounceThose(const std::vector<int>& tids, Nanoseconds now, TraceSequencer& sequencer);
    void AnnounceAsked(Nanoseconds now, TraceSequencer& sequencer);
    void Announce(int tid, const ContainerRegistry::Entry& entry, Nanoseconds now, TraceSequencer& sequencer);
    void AnnounceIfUnknown(int tid, const ContainerRegistry::Entry& entry, Nanoseconds now, TraceSequencer& sequencer);
    void MakeRoom(std::size_t more, Nanoseconds now, TraceSequencer& sequencer);
    void Withdraw(const std::vector<int>& tids, TraceSequencer& sequencer);
    void WithdrawIfHeld(int tid, Nanoseconds when, TraceSequencer& sequencer);
    void LeaveOutHost(int process, SyscallFilter* filter);
    void RecordNamespaces(int tid, const std::string& container);
    std::shared_ptr<ContainerProcMessage> StartNotice(int tid, const ContainerRegistry::Entry& entry);

    ContainerRegistry& registry;
    ProcReader& reader;
    NoticeReceivers& receivers;
    MetadataCache& cache;
    NoticeLedger ledger;
    bool mustResync = true;
    Nanoseconds lastEvent = ContainerRegistry::longAgo;
    Nanoseconds lastResync{0};
    Nanoseconds settled{0};  // until then a receiver may lack events
};

}  // namespace Engine
