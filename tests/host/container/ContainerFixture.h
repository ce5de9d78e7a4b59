// SPDX-License-Identifier: Apache-2.0
// A host with an engine, and a receiver of notices with a bounded table; told in trace events a millisecond apart.
#pragma once

#include <gmock/gmock.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "host/container/RegistryObserver.h"
#include "tests/host/container/FakeProc.h"
#include "tests/support/FakeSystem.h"
#include "tests/support/TraceEventBuilder.h"

// The table of a receiver of notices, as the detection task keeps its own: at more than 640 records it forgets, before
// it puts another in, all but those that ended up to two seconds ago.
struct ReceiverTable {
    void Put(int pid, long second)
    {
        if (records.size() > 640) {
            std::erase_if(records, [second](const auto& record) { return std::abs(record.second - second) > 2; });
        }
        records.emplace(pid, 0);
    }

    std::map<int, long> records;  // id to the second of its exit, 0 while it lives
};

// Keeps what is sent and passes it on to the table at once.
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): final, and the contract's destructor is protected
class Sequencer final : public Engine::TraceSequencer {
public:
    void SendInOrder(Framework::Task& /*target*/, std::shared_ptr<Framework::Message> message) override
    {
        const auto& notice = dynamic_cast<const Engine::ContainerProcMessage&>(*message);
        last = *notice.info;
        notices.push_back((notice.started ? "+" : "-") + std::to_string(last.pid));
        ++sent;
        if (!notice.started) {
            table.records.erase(last.pid);
        } else if (table.records.count(last.pid) == 0) {
            table.Put(last.pid, second);
        }
    }
    std::vector<std::string> Take() { return std::exchange(notices, {}); }

    ReceiverTable table;
    long second = 0;
    std::vector<std::string> notices;
    Engine::ContainerProcMessage::ProcInfo last;
    std::size_t sent = 0;
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

    std::chrono::nanoseconds Next()
    {
        now += std::chrono::milliseconds{1};
        sequencer.second = std::chrono::duration_cast<std::chrono::seconds>(now).count();
        return now;
    }
    void Round() { observer.OnRound(Next(), sequencer); }
    void Observe(Support::TraceEvent event) { observer.OnEvent(event.At(Next()).Message(), sequencer); }

    // The observer first, then the receiver.
    void Fork(int parent, int child)
    {
        Observe(Support::Fork(parent, "sh", child));
        if (registry.IsInside(parent)) {
            sequencer.table.Put(parent, sequencer.second);
            sequencer.table.records[child] = 0;
        }
    }
    // Whether the process belongs to a container from then on.
    bool Exec(int pid, const std::string& file)
    {
        Observe(Support::Exec(pid, file).Number("old_pid", pid));
        return registry.IsInside(pid);
    }
    void Exit(int pid)
    {
        Observe(Support::Exit(pid));
        if (const auto record = sequencer.table.records.find(pid); record != sequencer.table.records.end()) {
            record->second = sequencer.second;
        }
    }
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
        return observer.AdmitSyscall(tid, event.At(Next()).Message(), sequencer);
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
