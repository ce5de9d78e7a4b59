// SPDX-License-Identifier: Apache-2.0
// A host with an engine, and a receiver of notices; told in trace events a millisecond apart.
#pragma once

#include <gmock/gmock.h>

#include <deque>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "host/container/ContainerView.h"
#include "host/container/RegistryObserver.h"
#include "tests/support/FakeSystem.h"
#include "tests/support/TraceEventBuilder.h"

// 64 digits of one kind each, as engines make them.
inline const std::string idA(64, 'a');
inline const std::string idB(64, 'b');

// The stream to the receiver, which has a table as the detection task's.
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): final, and the contract's destructor is protected
struct Sequencer final : Engine::TraceSequencer {
    void SendInOrder(Framework::Task& target, std::shared_ptr<Framework::Message> message) override
    {
        const auto notice = std::dynamic_pointer_cast<Engine::ContainerProcMessage>(message);
        if (notice == nullptr) {
            Queue([message, &target] { message->MessageHandle(&target); });
            return;
        }
        last = *notice->info;
        notices.push_back((notice->started ? "+" : "-") + std::to_string(last.pid));
        Queue([this, pid = last.pid, started = notice->started] { started ? Know(pid) : Forget(pid); });
    }
    bool GetsEvent(const Framework::Task& /*task*/) const override { return hasSubscribed; }
    Engine::SyscallFilter* Filter() override { return filter; }

    void Queue(std::function<void()> step)
    {
        queue.push_back(std::move(step));
        isStalled ? void() : Handle();
    }
    void Handle()
    {
        for (; !queue.empty(); queue.pop_front()) {
            queue.front()();
        }
    }
    // With too many records the receiver forgets all processes that live.
    void Know(int pid)
    {
        table.size() > 640 ? table.clear() : void();
        table.insert(pid);
    }
    void Forget(int pid) { table.erase(pid); }
    std::vector<std::string> Take() { return std::exchange(notices, {}); }

    std::deque<std::function<void()>> queue;
    std::set<int> table;
    std::vector<std::string> notices;
    Engine::ContainerProcMessage::ProcInfo last;
    Engine::SyscallFilter* filter = nullptr;
    bool hasSubscribed = true;
    bool isStalled = false;
};

class ContainerFixture : public testing::Test {
protected:
    // Processes of the host: the engine's shim, the runtime it starts, and an administrator's shell.
    static constexpr int shim = 100;
    static constexpr int runtime = 200;
    static constexpr int shell = 300;

    ContainerFixture()
    {
        for (const int pid : {1, shim, runtime, shell}) {
            Run(pid, "");
        }
        Round();
    }

    // Has /proc show a process, one without namespaces for a zombie.
    Support::FakeSystem::Process& Run(int pid, const std::string& container, int parent = 1)
    {
        return proc.Put(pid, {{parent, "sh"}, container, "", {{"mnt", container.empty() ? "host" : "container's"}}});
    }

    void Register()
    {
        receivers.Add(task);
        Round();
    }
    void LoseMessage()
    {
        for (const unsigned long before = task.LostEvents(); task.LostEvents() == before;) {
            auto message = std::make_shared<Framework::Message>();
            task.EnqueueMsg(message);
        }
    }
    std::chrono::nanoseconds Next() { return now += std::chrono::milliseconds{1}; }
    void Round() { observer.OnRound(Next(), sequencer); }
    void Observe(Support::TraceEvent event) { observer.OnEvent(event.At(Next()).Message(), sequencer); }

    // The observer first, then the receiver, which a fork in a container makes know both.
    void Fork(int parent, int child)
    {
        Observe(Support::Fork(parent, "sh", child));
        for (const int pid : {parent, child}) {
            if (registry.IsInside(parent) && sequencer.hasSubscribed) {
                sequencer.Queue([this, pid] { sequencer.Know(pid); });
            }
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
        return view.ContainerOf(pid, id) == 0 ? id : "gone";
    }

    Support::FakeSystem proc;
    Engine::MetadataCache cache;
    Engine::ContainerTable table;
    Engine::ContainerView view{table, proc};
    Engine::ContainerRegistry registry{table, proc};
    Engine::NoticeReceivers receivers;
    Engine::RegistryObserver observer{registry, proc, receivers, cache};
    Sequencer sequencer;
    Framework::Task task{"receiver", "", Framework::TaskCondition::EventLoop, 1};
    std::chrono::nanoseconds now = std::chrono::seconds{1000};
};
