// SPDX-License-Identifier: Apache-2.0
// A host with an engine, and a receiver of notices; told in trace events a millisecond apart.
#pragma once

#include <gmock/gmock.h>

#include <deque>
#include <functional>
#include <set>

#include "host/container/ContainerView.h"
#include "host/container/RegistryObserver.h"
#include "host/sdk/TraceTime.h"
#include "tests/support/FakeSystem.h"
#include "tests/support/TemporaryDirectory.h"
#include "tests/support/TraceEventBuilder.h"

// 64 digits of one kind each, as engines make them.
inline const std::string idA(64, 'a');
inline const std::string idB(64, 'b');

// It is the stream to the receiver, too, which has a table as the detection task's.
class ContainerFixture : public testing::Test, public Engine::TraceSequencer {
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

    void SendInOrder(Framework::Task& target, std::shared_ptr<Framework::Message> message) override
    {
        const auto notice = std::dynamic_pointer_cast<Engine::ContainerProcMessage>(message);
        if (notice == nullptr) {
            return Queue([message, &target] { message->MessageHandle(&target); });
        }
        last = *notice->info;
        notices.push_back((notice->started ? "+" : "-") + std::to_string(last.pid));
        Queue([this, notice] { notice->started ? Know(notice->info->pid) : void(known.erase(notice->info->pid)); });
    }
    bool GetsEvent(const Framework::Task& /*task*/) const override { return hasSubscribed; }
    Engine::SyscallFilter* Filter() override { return nullptr; }
    std::vector<std::string> Notices() { return std::exchange(notices, {}); }

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
        known.size() > 640 ? known.clear() : void();
        known.insert(pid);
    }
    void LoseMessage()
    {
        auto message = std::make_shared<Framework::Message>();
        while (task.EnqueueMsg(message) == 0) {
        }
    }
    void Register()
    {
        receivers.Add(task);
        Round();
    }

    // Has /proc show a process, one without namespaces for a zombie.
    Support::FakeSystem::Process& Run(int pid, const std::string& container, int parent = 1)
    {
        return proc.Put(pid, {{parent, "sh"}, container, "", {{"mnt", container.empty() ? "host" : "container's"}}});
    }
    std::chrono::nanoseconds Next() { return now += std::chrono::milliseconds{1}; }
    static Engine::RecordSource SourceOf(const Engine::FtraceMessage& event)
    {
        return {static_cast<int>(event.get_number("common_pid")), {}};
    }
    void Round() { observer.OnRound(Next(), *this); }
    void Purge() { registry.Purge(now + Engine::ContainerTable::keepDead * 2); }
    void Observe(const Support::TraceEvent& event)
    {
        observer.OnEvent(event.Message(Next()), SourceOf(event.Message()), *this);
    }

    // The observer first, then the receiver, which a fork in a container makes know both.
    void Fork(int parent, int child)
    {
        Observe(Support::Fork(parent, "sh", child));
        if (registry.IsInside(parent) && hasSubscribed) {
            Queue([this, parent, child] { Know(parent), Know(child); });
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
        Observe(Move(mover, pid).Text("dst_path", id.empty() ? "/" : "/docker/" + id));
    }
    static Support::TraceEvent Move(int mover, int pid)
    {
        return Support::TraceEvent("cgroup", "cgroup_attach_task", mover).Number("pid", pid);
    }
    void StartInA(int pid)
    {
        Fork(shim, pid);
        Attach(runtime, pid, idA);
        ASSERT_TRUE(Exec(pid, "/usr/bin/a-long-program-name"));
    }
    // Zero: not admitted.
    Engine::TraceObserver::Origin Call(int tid, Engine::ProcessIdentity identity = {})
    {
        auto event = Support::Syscall(tid, "mount");
        return observer.AdmitSyscall(tid, {tid, identity}, event.Message(Next()), *this);
    }
    std::string ContainerOf(int pid, std::optional<std::chrono::nanoseconds> when = {})
    {
        SDK::TraceTime::Scope scope;
        when ? scope.MoveTo(*when) : void();
        std::string id;
        return view.ContainerOf(pid, id) == 0 ? id : "gone";
    }

    Support::FakeSystem proc;
    const TemporaryDirectory bundleRoot;
    Engine::MetadataCache cache;
    Engine::ContainerTable table;
    Engine::ContainerGroups groups;
    Engine::ContainerView view{table, groups, cache, proc};
    Engine::ContainerRegistry registry{table, groups, proc};
    Engine::NoticeReceivers receivers;
    bool isKnown = true;  // what the engines say when they are asked about a container
    std::vector<std::string> asked;
    Engine::BundleReader bundles{proc,
                                 Engine::BundleFinder{{{bundleRoot.Path()}, {}}},
                                 cache,
                                 {[] {}, [] {},
                                  [this](const std::string& id) {
                                      asked.push_back(id);
                                      return isKnown;
                                  }}};
    Engine::RegistryObserver observer{registry, proc, receivers, cache, bundles};
    Framework::Task task{"receiver", "", Framework::TaskCondition::EventLoop, 1};
    std::deque<std::function<void()>> queue;
    std::set<int> known;
    std::vector<std::string> notices;
    Engine::ContainerProcMessage::ProcInfo last;
    bool hasSubscribed = true;
    bool isStalled = false;
    std::chrono::nanoseconds now = std::chrono::seconds{1000};
};
