// SPDX-License-Identifier: Apache-2.0
// A host with an engine, and a receiver of notices; told in trace events a millisecond apart.
#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/container/RegistryObserver.h"
#include "tests/host/container/FakeProc.h"
#include "tests/support/FakeSystem.h"
#include "tests/support/TraceEventBuilder.h"

// Keeps what is sent, and whom a receiver has a record of in consequence.
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): final, and the contract's destructor is protected
class Sequencer final : public Engine::TraceSequencer {
public:
    void SendInOrder(Framework::Task& target, std::shared_ptr<Framework::Message> message) override
    {
        if (isFull) {
            return;
        }
        message->MessageHandle(&target);
        Keep(dynamic_cast<const Engine::ContainerProcMessage&>(*message));
    }
    void Keep(const Engine::ContainerProcMessage& notice)
    {
        last = *notice.info;
        notices.push_back((notice.started ? "+" : "-") + std::to_string(last.pid));
        if (notice.started) {
            Know(last.pid);
        } else {
            table.erase(last.pid);
        }
    }
    // As the detection task does: with too many it forgets all that live.
    void Know(int pid)
    {
        if (table.size() > 640) {
            table.clear();
        }
        table.insert(pid);
    }
    Engine::SyscallFilter* Filter() override { return filter; }
    std::vector<std::string> Take() { return std::exchange(notices, {}); }

    std::set<int> table;
    std::vector<std::string> notices;
    Engine::ContainerProcMessage::ProcInfo last;
    Engine::SyscallFilter* filter = nullptr;
    bool isFull = false;  // notices do not reach the receiver
};

class ContainerFixture : public testing::Test {
protected:
    // Processes of the host: the engine's shim, the runtime it starts, and an administrator's shell.
    static constexpr int shim = 100;
    static constexpr int runtime = 200;
    static constexpr int shell = 300;

    struct ReceivingTask : Framework::Task {
        ReceivingTask() : Task("receiver", "", Framework::TaskCondition::EventLoop, 1) {}
    };

    ContainerFixture()
    {
        for (const int pid : {shim, runtime, shell}) {
            proc.threads[pid].hasHostMounts = true;
        }
        Round();
    }

    std::chrono::nanoseconds Next() { return now += std::chrono::milliseconds{1}; }
    void Round() { observer.OnRound(Next(), sequencer); }
    void Observe(Support::TraceEvent event) { observer.OnEvent(event.At(Next()).Message(), sequencer); }

    // The observer first, then the receiver.
    void Fork(int parent, int child)
    {
        Observe(Support::Fork(parent, "sh", child));
        if (registry.IsInside(parent)) {
            sequencer.Know(parent);
            sequencer.Know(child);
        }
    }
    // Whether the process belongs to a container from then on.
    bool Exec(int pid, const std::string& file)
    {
        Observe(Support::Exec(pid, file).Number("old_pid", pid));
        return registry.IsInside(pid);
    }
    void Exit(int pid) { Observe(Support::Exit(pid)); }
    void Attach(int mover, int pid, const std::string& id)
    {
        Support::TraceEvent event("cgroup", "cgroup_attach_task");
        event.Number("common_pid", mover).Number("pid", pid);
        Observe(event.Text("dst_path", id.empty() ? "/" : "/docker/" + id));
    }
    // Zero: not admitted.
    Engine::TraceObserver::Origin Call(int tid)
    {
        auto event = Support::Syscall(tid, "mount");
        return observer.AdmitSyscall(tid, tid, event.At(Next()).Message(), sequencer);
    }
    void StartInA(int pid)
    {
        Fork(shim, pid);
        Attach(runtime, pid, idA);
        ASSERT_TRUE(Exec(pid, "/usr/bin/a-long-program-name"));
    }
    std::string ContainerOf(int pid)
    {
        std::string id;
        return registry.ContainerOf(pid, id) == 0 ? id : "gone";
    }

    Support::FakeSystem world;
    FakeProc proc;
    Engine::MetadataCache cache;
    Engine::ContainerRegistry registry{proc};
    Engine::NoticeReceivers receivers;
    Engine::RegistryObserver observer{registry, proc, receivers, cache};
    Sequencer sequencer;
    ReceivingTask task;
    std::chrono::nanoseconds now = std::chrono::seconds{1000};
};
