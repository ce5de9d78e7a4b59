// SPDX-License-Identifier: Apache-2.0
// The detection task: keeps the table of the processes that run in containers and hands what they do to the detectors.
//
// Ownership: owns the detectors and its trace subscriptions; refers to the metadata service.
// Thread:    its own task thread for everything after the registration with the framework; Merged from any.
#pragma once

#include <cstdint>
#include <deque>
#include <list>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "ContainerEscapeDetectPolicyContent.h"
#include "ContainerKeys.h"
#include "RateFilter.h"
#include "Submodule.h"
#include "WatchHandles.h"
#include "framework/Task.h"
#include "messages/AbstractMessageReceiver.h"
#include "messages/ContainerMessages.h"
#include "messages/FileNotifyMessages.h"
#include "messages/FtraceMessages.h"
#include "sdk/MergedAlarms.h"

namespace Engine {

class BaseSubmodule;

class ContainerEscapeDetectTask : public Framework::Task,
                                  public SDK::MergedAlarms,
                                  public AbstractMessageReceiver,
                                  public AbstructMessage<ContainerProcMessage>::Receiver,
                                  public AbstructMessage<FtraceMessage>::Receiver {
public:
    struct escapeProcRecord {
        std::int32_t ppid = -1;  // -1: unknown
        std::int32_t pid = -1;
        std::string name;           // command name; empty: unknown
        std::string exeName;        // as given to exec; empty: unknown
        std::string containerId;    // empty only when a notice came without one
        std::int64_t exitTime = 0;  // seconds since the epoch; 0: alive
    };

    // A file notification that came before its process was known.
    struct fanotifyCached {
        std::string filePath;
        std::int32_t pid;
    };

    static constexpr std::size_t maxProcs = 640;  // more than this many records are pruned before an insertion
    static constexpr std::size_t maxCachedNotifications = 4;

    // `feature`: whose policy the task waits for. `meta`: not owned; null: alarms name only what the table knows.
    ContainerEscapeDetectTask(const std::string& feature, ContainerMetaInfo* meta);
    ~ContainerEscapeDetectTask() override;

    int Init() override;
    int UnInit() override;
    int Run() override;

    // A file access: to the detectors if its process is known and its image not whitelisted; kept for later if the
    // process is unknown. Returns the last detector's result, -1 when no detector saw it.
    int FileNotifyMessageAction(FileNotifyMessage* message) override;
    // A trace event. The scheduler's keep the table, all others go to the detectors. Returns the handler's result; -1
    // for an event of a process that is not in the table.
    int Receive(const FtraceMessage& message) override;
    // A process that appeared in a container, or went away. 0.
    int Receive(const ContainerProcMessage& message) override;

    // Takes a detector over. The order of attachment is the order in which the detectors see every event. Only before
    // the task is registered.
    void AttachSubmodule(std::unique_ptr<Submodule> submodule);

    // Copies what changed (with `force`: everything) out of the policies in force. Whether the detectors' settings were
    // copied.
    bool RefreshPolicy(bool force);

    // In the scope of containers: the key of the container that `pid` is in. In the scope of threads, and where the
    // container is not known: `otherwise`.
    ScopeKey KeyOf(int pid, ScopeKey otherwise);
    Scope GetScope() const { return policyContent.scope; }
    void SetScope(Scope scope) { policyContent.scope = scope; }
    // Ends what detectors keep for containers that are not used any more.
    void ForgetIdleContainers();

    void RegisterRealTimeProcListener();
    void UnregisterRealTimeProcListener();
    void RegisterContainerProcListener();
    void UnregisterContainerProcListener();

    std::list<FtraceUtils::FtraceWatchHandle>& GetWatchHandle() { return watchHandles; }
    SDK::RateFilter<std::string>& GetAlarmFilter() { return alarmFilter; }

    // An alarm of that class was merged into an earlier one.
    void CountMerged(const std::string& classId);
    std::map<std::string, std::uint64_t> Merged() const override;

    // The process table. 0: done; -1: the event concerns no process of the table. The out-argument is written in any
    // case. `syscall` is not used.
    int CreateProcess(const std::string& syscall, const FtraceMessage& message, int& ppid);
    int AddProcessInfo(std::string syscall, const FtraceMessage& message, int& pid);
    int RemoveProcess(const std::string& syscall, const FtraceMessage& message);
    void CreateProcessByContainerMsg(const ContainerProcMessage& message);
    void RemoveProcessByContainerMsg(const ContainerProcMessage& message);
    // Forgets every process except those that were seen to exit within the last two seconds.
    void ClearProcs();

    // 0: copied from the table; -1, nothing written: not in the table.
    int GetPPIDByRecordMap(const int& pid, int& ppid);
    void GetExeNameByRecordMap(const int& pid, std::string& exeName);
    int GetContainerIDByRecordMap(const int& pid, std::string& containerId);

    // As SDK::ProcessUtils::GetContainerID, and shows the process's cgroup file in the log, at error level: a
    // diagnostic for the cases in which the two disagree. Not called in normal operation.
    int IsContainerProc(unsigned long pid, std::string& containerId);

    void CachedFanotifyMsg(const int& pid, const std::string& filePath);
    // Hands over the kept notifications whose processes are known by now.
    void HandleCacheMsg();

    // Whether containers of that image are excluded from detection. The registry, and with it the tag, is cut off names
    // that have a slash; names without one are compared with their tag.
    bool IsWhitelisted(const std::string& image) const;

    const std::map<std::int32_t, escapeProcRecord>& Procs() const { return procs; }
    const std::deque<fanotifyCached>& CachedNotifications() const { return fanotifyCache; }
    const std::unordered_set<std::string>& ImageWhitelist() const { return imageWhitelist; }
    const ContainerEscapeDetectPolicyContent& PolicyContent() const { return policyContent; }

private:
    int Dispatch(const FtraceMessage& message);
    void ForgetInDetectors(int pid);
    ScopeKey KeyOf(const escapeProcRecord& process);  // hostKey: none of its own
    void SendContainerRegistration(bool subscribe);
    void PruneIfFull();
    bool IsKnown(int pid) const { return procs.find(pid) != procs.end(); }

    SDK::RateFilter<std::string> alarmFilter;
    mutable std::mutex mergedMutex;  // of `merged`
    std::map<std::string, std::uint64_t> merged;
    std::list<FtraceUtils::FtraceWatchHandle> watchHandles;
    std::vector<std::unique_ptr<Submodule>> submodules;
    std::unordered_set<std::string> imageWhitelist;
    ContainerEscapeDetectPolicyContent policyContent;
    ContainerMetaInfo* containerMetaInfo;
    ContainerKeys containerKeys;
    int dispatchedPid = -1;  // whose event the detectors have before them; -1: none
    ScopeKey dispatchedKey = hostKey;
    std::map<std::int32_t, escapeProcRecord> procs;
    std::deque<fanotifyCached> fanotifyCache;

    // Those of `submodules` that take trace events, in their order: the cast is too dear to be made for each event.
    std::vector<AbstructMessage<FtraceMessage>::Receiver*> ftraceReceivers;
    std::vector<BaseSubmodule*> processDetectors;  // those that may keep something for each process
};

}  // namespace Engine
