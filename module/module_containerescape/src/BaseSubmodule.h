// SPDX-License-Identifier: Apache-2.0
// The common base of the detectors: subscribes to the system calls and files that a detector names, turns inbound
// messages into detector calls, and builds and sends the alarm.
//
// Ownership: refers to the task and the metadata service, which outlive it. Owns its trace subscriptions: they end
//            with it even without DeInit; its file watches only end in DeInit.
// Thread:    the detection task's thread; no lock inside.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "AlertInfo.h"
#include "ContainerKeys.h"
#include "Submodule.h"
#include "WatchHandles.h"
#include "messages/ContainerMessages.h"
#include "messages/FtraceMessages.h"

namespace Engine {

class ContainerEscapeDetectTask;

class BaseSubmodule : public Submodule,
                      public AbstructMessage<FtraceMessage>::Receiver,
                      public AbstructMessage<ContainerProcMessage>::Receiver {
public:
    // `name`: the detector's. `metaInfo`: not owned. Subscribes to nothing yet.
    BaseSubmodule(ContainerEscapeDetectTask& task, std::string name, ContainerMetaInfo* metaInfo);
    BaseSubmodule(const BaseSubmodule&) = delete;
    BaseSubmodule& operator=(const BaseSubmodule&) = delete;

    // A detector writes its own and ends it with the Init of two sets below.
    int Init() override = 0;
    void DeInit() override;
    int RunOnce() override;
    ~BaseSubmodule() override;
    int HandleFileNotifyMsg(FileNotifyMessage* message) override;
    void Reconfigure(const ContainerEscapeDetectPolicyContent& content) override;

    // A trace event, to HandleEvent. Always 0, so no detector hides an event from the next. What HandleEvent throws
    // passes through.
    int Receive(const FtraceMessage& message) override;
    // A process that appeared in a container or left it, to HandleProcFork or HandleProcExit. 0.
    int Receive(const ContainerProcMessage& message) override;

    virtual void HandleProcFork(int pid);
    virtual void HandleProcExit(int pid);

    // The detector's logic for one trace event of a container's process. No caller uses the result.
    virtual bool HandleEvent(const FtraceMessage& message) = 0;

    // A container is not used any more: what is kept under its key goes.
    virtual void Forget(ScopeKey container);

    // Subscribes to the entry of each of the system calls (names without "sys_enter_") and watches each of the files.
    // A second call adds the new ones and leaves the old ones subscribed.
    void Init(std::unordered_set<std::string> newSyscalls, std::unordered_set<std::string> newFiles);

    // `remove` false: subscribe; true: unsubscribe. The sources report what fails.
    void RegisterFileMonitor(bool remove);
    void RegisterSyscallMonitor(bool remove);

    // Appends the (system, event) pairs of the system calls.
    void MakeEvents(std::list<std::pair<std::string, std::string>>& events) const;

    // The system call's name within a trace event's name: what follows the first character that is one of "enter_",
    // and the six after it. "sys_enter_openat" gives "openat"; policies and states are written against this very rule,
    // so other names give what they give. Without any such character: the tail from index 6. Throws std::out_of_range
    // for a name that ends before the tail begins.
    static std::string ParseFtraceSyscallName(const std::string& eventName);

    // The same without a copy. The result refers to `eventName`'s text. The search is a library call for each
    // character, made several times for each event; this host's names all begin alike.
    static std::string_view FtraceSyscallNameView(std::string_view eventName)
    {
        constexpr std::string_view key = "enter_";
        constexpr std::string_view usual = "syscalls:sys_";  // its last character is the first one of the key
        // Without a match npos + 7 wraps to 6, which is meant.
        const std::size_t match = eventName.starts_with(usual) ? usual.size() - 1 : eventName.find_first_of(key);
        return eventName.substr(match + key.size() + 1);
    }

    // Fills the parent's pid and the process's name from the system, from the task's table for a process that has
    // gone; leaves alone what neither knows.
    void GetProcessDetailByPid(int pid, AlertInfo& info);

    Json::Value MakeForensicInfo(const std::string& syscall) const;
    Json::Value MakeFileInfo(const std::string& path) const;

    // Completes `info`, builds the alarm document and, unless the task's filter merges it, sends it. Empty `forensic`
    // or `file` leaves that part out.
    // Whether it counts for the detector's gate: always in the scope of threads; in that of containers when it went
    // out, neither merged nor refused by the report task.
    bool Alert(AlertInfo& info, const Json::Value& forensic, const Json::Value& file);

    ContainerMetaInfo* GetMetaInfo() const { return metaInfo; }

protected:
    ContainerEscapeDetectTask& task;

private:
    bool Send(const AlertInfo& info, const std::string& call, const std::string& text);
    void AddContainer(const AlertInfo& info, Json::Value& document, Json::Value& resource);
    std::string ResolveContainerId(const AlertInfo& info, Json::Value& resource);

    std::unordered_set<std::string> syscalls;
    std::unordered_set<std::string> files;
    std::string syscallSystem;
    std::string schedSystem;
    std::vector<std::uint32_t> fileEvents;  // fanotify(7): FAN_MODIFY, FAN_CLOSE_WRITE
    std::list<FtraceUtils::FtraceWatchHandle> watchHandles;
    std::string name;
    ContainerMetaInfo* metaInfo;
};

}  // namespace Engine
