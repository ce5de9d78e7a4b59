// SPDX-License-Identifier: Apache-2.0
// What an event costs that raises no alarm: no allocation, once its process is known to the detectors. A program of its
// own, because it counts every allocation of its thread.
#include <cstdlib>
#include <new>

#include "BruteforceSubmodule.h"
#include "DirtyCowSubmodule.h"
#include "EscapeFileAccessSubmodule.h"
#include "HighRiskSyscallSubmodule.h"
#include "ShockerSubmodule.h"
#include "tests/module/detectors/DetectorTest.h"

namespace {

thread_local unsigned long allocations = 0;

void* Allocate(std::size_t size)
{
    ++allocations;
    void* memory = std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc{};
    }
    return memory;
}

}  // namespace

void* operator new(std::size_t size)
{
    return Allocate(size);
}

void* operator new[](std::size_t size)
{
    return Allocate(size);
}

void operator delete(void* memory) noexcept
{
    std::free(memory);
}

void operator delete(void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory) noexcept
{
    std::free(memory);
}

void operator delete[](void* memory, std::size_t /*size*/) noexcept
{
    std::free(memory);
}

namespace Engine {
namespace {

class DetectorAllocationTest : public Support::DetectorTest {
protected:
    void SetUp() override
    {
        DetectorTest::SetUp();
        logs.SetLevel(Poco::Message::PRIO_INFORMATION);
        // A window without length: however fast the test runs, every call of it is within the limit.
        Attach<BruteforceSubmodule>(*task, collector, std::chrono::duration<long>{0}, static_cast<unsigned short>(300));
        Attach<ShockerSubmodule>(*task, collector);
        Attach<DirtyCowSubmodule>(*task, collector, true);
        Attach<HighRiskSyscallSubmodule>(*task, collector, std::unordered_set<int>{})
            .Reconfigure({{}, {"open_by_handle_at", "unshare", "perf_event_open", "process_vm_writev"}});
        Attach<EscapeFileAccessSubmodule>(*task, collector);
    }

    unsigned long AllocationsFor(const FtraceMessage& message)
    {
        const unsigned long before = allocations;
        for (int repeat = 0; repeat < 1000; ++repeat) {
            task->Receive(message);
        }
        return allocations - before;
    }
};

TEST_F(DetectorAllocationTest, CounterSeesTheCodeUnderTest)
{
    const Support::TraceEvent first = Entry(shell, "unshare");
    const FtraceMessage message = first.Message();
    const unsigned long before = allocations;
    task->Receive(message);
    EXPECT_GT(allocations, before) << "an alarm is a document";
    EXPECT_EQ(AlarmedPids().size(), 1U);
}

TEST_F(DetectorAllocationTest, EventsOfATrackedProcessThatRaiseNoAlarmAllocateNothing)
{
    const char* calls[] = {"read",    "getdents64",        "open_by_handle_at",
                           "unshare", "process_vm_writev", "sched_get_priority_max",
                           "bind",    "madvise",           "ptrace",
                           "accept",  "perf_event_open"};
    std::vector<Support::TraceEvent> events;
    for (const int pid : {shell, other}) {
        for (const char* call : calls) {
            events.push_back(Entry(pid, call));
        }
    }
    // The first time, the process is entered into the detectors' tables and the listed calls have their hourly alarm.
    for (const Support::TraceEvent& event : events) {
        AllocationsFor(event.Message());
    }
    EXPECT_FALSE(AlarmedPids().empty());
    for (const Support::TraceEvent& event : events) {
        EXPECT_EQ(AllocationsFor(event.Message()), 0U) << event.Message().name();
    }
    EXPECT_TRUE(AlarmedPids().empty());
}

TEST_F(DetectorAllocationTest, EventsOfAnUnknownProcessAllocateNothing)
{
    for (const char* call : {"unshare", "open_by_handle_at", "getdents64"}) {
        const Support::TraceEvent event = Entry(other + 1, call);
        EXPECT_EQ(AllocationsFor(event.Message()), 0U) << call;
        EXPECT_EQ(task->Receive(event.Message()), -1);
    }
}

}  // namespace
}  // namespace Engine
