// SPDX-License-Identifier: Apache-2.0
// What the cases of this folder share. Every wait has a condition; the limit only turns a hang into a failure.
#pragma once

#include <gmock/gmock.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "framework/Engine.h"

namespace FrameworkTest {

// Far above what a loaded machine needs, and below `foreverMs`, which a sleep without wake-up would last.
inline constexpr std::chrono::seconds limit{20};
inline constexpr int foreverMs = 60'000;

// WaitAndHandleEvent with a limit that it must not need.
inline int WaitBriefly(Framework::EventWaiter& waiter)
{
    const auto begin = std::chrono::steady_clock::now();
    const int result = waiter.WaitAndHandleEvent(foreverMs, 8);
    EXPECT_LT(std::chrono::steady_clock::now() - begin, limit) << "slept through it";
    return result;
}

// Lines that threads write and a case waits for.
class Journal {
public:
    void Add(const std::string& line)
    {
        const std::lock_guard lock(mutex);
        lines.push_back(line);
        changed.notify_all();
    }

    // The lines once there are `count` of them, or fewer at the limit.
    std::vector<std::string> WaitFor(std::size_t count)
    {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, limit, [&] { return lines.size() >= count; });
        return lines;
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> lines;
};

// Runs a function on the thread of the receiving task.
class CallMessage : public Framework::Message {
public:
    explicit CallMessage(std::function<int()> call, unsigned long events = 1) : call(std::move(call)), events(events) {}
    int MessageHandle(void* /*target*/) override { return call(); }
    unsigned long EventCount() const override { return events; }

private:
    std::function<int()> call;
    unsigned long events;
};

inline Framework::Message* Call(std::function<int()> call)
{
    return new CallMessage(std::move(call));
}

// Writes what happens to it into a journal. Waits without end: only a wake-up brings it on.
class TestTask : public Framework::Task {
public:
    TestTask(const std::string& name, Journal& journal, const std::string& feature = "", unsigned int capacity = 64)
        : Task(name, feature, Framework::TaskCondition::EventLoop, capacity), journal(journal)
    {
    }

    int Init() override
    {
        const Framework::Policy* feature = featurePolicy.Get();
        const Framework::Policy* own = taskPolicy.Get();
        journal.Add(name() + " Init" + (feature != nullptr ? " " + feature->Name() : "") +
                    (own != nullptr ? "/" + own->Name() : ""));
        return initResult;
    }
    int UnInit() override
    {
        journal.Add(name() + " UnInit");
        return 0;
    }
    int Run() override
    {
        if (runFails) {
            journal.Add("Run");
            throw std::runtime_error("bad run");
        }
        Waiter().WaitAndHandleEvent(foreverMs, 16);
        BulkConsumeMsg(1024);
        return 0;
    }
    bool Send(std::function<int()> call) { return SendAgileMsg(this, Call(std::move(call))) != 0; }

    int initResult = 0;
    bool runFails = false;

private:
    Journal& journal;
};

class FrameworkCase : public testing::Test {
protected:
    void TearDown() override { engine.Stop(); }  // no thread uses the fixture when its parts go

    TestTask* Register(const std::string& name, const std::string& feature = "")
    {
        auto* const task = new TestTask(name, journal, feature);
        EXPECT_EQ(module.RegisterTask(task, true), 0);
        return task;
    }

    Journal journal;
    Framework::Engine engine;
    Framework::Module module{"module"};
};

}  // namespace FrameworkTest
