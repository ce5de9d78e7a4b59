// SPDX-License-Identifier: Apache-2.0
// A host with an engine, and a receiver of notices; told in trace events a millisecond apart.
#pragma once

#include <gmock/gmock.h>

#include <deque>
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

// The /proc of that host.
class FakeProc : public Support::FakeSystem {
public:
    struct Thread {
        std::string container;
        int parent = 1;
        std::string mounts = "container's";  // mount namespace; "host": that of process 1
        bool runsCopy = false;               // of its parent's program
        std::vector<int> others = {};        // further threads of this process
        bool isZombie = false;               // its control group can still be read, its namespaces cannot
        std::chrono::nanoseconds start = std::chrono::seconds{5000};  // after all that the tests tell
    };

    std::map<int, Thread> threads;                // processes, and those of their threads that answer differently
    std::map<std::uint64_t, std::string> groups;  // control groups, with the containers that they are

    std::optional<std::string> CgroupContainer(int tid) override { return Of(tid, &Thread::container); }
    std::string ContainerOfCgroup(std::uint64_t group) override { return groups.contains(group) ? groups[group] : ""; }
    bool RunSameFile(int tid, int /*parent*/) override { return Of(tid, &Thread::runsCopy).value_or(false); }
    std::optional<std::chrono::nanoseconds> StartTime(int tid) override { return Of(tid, &Thread::start); }
    int Status(int tid, SDK::ProcessUtils::procStatus& status) override
    {
        status.ppid = Of(tid, &Thread::parent).value_or(-1);
        return threads.contains(tid) ? 0 : -1;
    }
    int Namespaces(int tid, std::map<std::string, std::string>& namespaces) override
    {
        namespaces = {{"mnt", tid == 1 ? "host" : Of(tid, &Thread::mounts).value_or("")}};
        return tid == 1 || !Of(tid, &Thread::isZombie).value_or(true) ? 0 : -1;
    }
    int ExecutablePath(unsigned int /*tid*/, std::string& path) override
    {
        path = "/proc-knows/sh";
        return 0;
    }
    std::vector<int> Processes() override
    {
        std::vector<int> ids;
        for (const auto& item : threads) {
            ids.push_back(item.first);
        }
        return ids;
    }
    std::vector<int> Threads(int pid) override { return threads[pid].others; }

private:
    template <class Value>
    std::optional<Value> Of(int tid, Value Thread::*member) const
    {
        const auto found = threads.find(tid);
        return found == threads.end() ? std::nullopt : std::optional{found->second.*member};
    }
};

// The stream to the receiver, which has a table as the detection task's.
// NOLINTNEXTLINE(cppcoreguidelines-virtual-class-destructor): final, and the contract's destructor is protected
class Sequencer final : public Engine::TraceSequencer {
public:
    void SendInOrder(Framework::Task& target, std::shared_ptr<Framework::Message> message) override
    {
        if (const auto* notice = dynamic_cast<const Engine::ContainerProcMessage*>(message.get())) {
            last = *notice->info;
            notices.push_back((notice->started ? "+" : "-") + std::to_string(last.pid));
        }
        queue.push_back({std::move(message), &target, 0});
        isStalled ? void() : Handle();
    }
    bool GetsEvent(const Framework::Task& /*task*/) const override { return hasSubscribed; }
    Engine::SyscallFilter* Filter() override { return filter; }

    // An event that makes the receiver know an id: a fork in a container.
    void Know(int pid)
    {
        queue.push_back({nullptr, nullptr, pid});
        isStalled ? void() : Handle();
    }
    // With too many records it forgets all processes that live.
    void Handle()
    {
        for (; !queue.empty(); queue.pop_front()) {
            const Item& item = queue.front();
            if (item.message != nullptr) {
                item.message->MessageHandle(item.target);
            }
            const auto* notice = dynamic_cast<const Engine::ContainerProcMessage*>(item.message.get());
            const int pid = notice != nullptr ? notice->info->pid : item.known;
            if (notice != nullptr && !notice->started) {
                table.erase(pid);
            } else if (pid != 0) {
                table.size() > 640 ? table.clear() : void();
                table.insert(pid);
            }
        }
    }
    std::vector<std::string> Take() { return std::exchange(notices, {}); }

    struct Item {
        std::shared_ptr<Framework::Message> message;
        Framework::Task* target;
        int known;
    };
    std::deque<Item> queue;
    std::set<int> table;
    std::vector<std::string> notices;
    Engine::ContainerProcMessage::ProcInfo last;
    Engine::SyscallFilter* filter = nullptr;
    bool hasSubscribed = true;
    bool isStalled = false;  // the receiver handles nothing at present
};

class ContainerFixture : public testing::Test {
protected:
    // Processes of the host: the engine's shim, the runtime it starts, and an administrator's shell.
    static constexpr int shim = 100;
    static constexpr int runtime = 200;
    static constexpr int shell = 300;

    struct ReceivingTask : Framework::Task {
        ReceivingTask() : Task("receiver", "", Framework::TaskCondition::EventLoop, 1) {}
        void LoseOne()
        {
            for (const unsigned long before = LostEvents(); LostEvents() == before;) {
                std::shared_ptr<Framework::Message> message = std::make_shared<Framework::Message>();
                EnqueueMsg(message);
            }
        }
    };

    ContainerFixture()
    {
        for (const int pid : {shim, runtime, shell}) {
            proc.threads[pid].mounts = "host";
        }
        Round();
    }

    void Register()
    {
        receivers.Add(task);
        Round();
    }
    std::chrono::nanoseconds Next() { return now += std::chrono::milliseconds{1}; }
    void Round() { observer.OnRound(Next(), sequencer); }
    void Observe(Support::TraceEvent event) { observer.OnEvent(event.At(Next()).Message(), sequencer); }

    // The observer first, then the receiver.
    void Fork(int parent, int child)
    {
        Observe(Support::Fork(parent, "sh", child));
        if (registry.IsInside(parent) && sequencer.hasSubscribed) {
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
        return view.ContainerOf(pid, id) == 0 ? id : "gone";
    }

    FakeProc proc;
    Engine::MetadataCache cache;
    Engine::ContainerTable table;
    Engine::ContainerView view{table, proc};
    Engine::ContainerRegistry registry{table, proc};
    Engine::NoticeReceivers receivers;
    Engine::RegistryObserver observer{registry, proc, receivers, cache};
    Sequencer sequencer;
    ReceivingTask task;
    std::chrono::nanoseconds now = std::chrono::seconds{1000};
};
