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

}  // namespace

// The other forms come down to these, but with a sanitizer the one that does not throw. Not inlined: the compiler would
// see malloc and delete, or new and free, meet.
[[gnu::noinline]] void* operator new(std::size_t size)
{
    ++allocations;
    void* memory = std::malloc(size);
    if (memory == nullptr) {
        throw std::bad_alloc{};
    }
    return memory;
}

[[gnu::noinline]] void* operator new(std::size_t size, const std::nothrow_t& /*tag*/) noexcept
{
    ++allocations;
    return std::malloc(size);
}

[[gnu::noinline]] void operator delete(void* memory) noexcept
{
    std::free(memory);
}

[[gnu::noinline]] void operator delete(void* memory, std::size_t /*size*/) noexcept
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

TEST_F(DetectorAllocationTest, EventsOfATrackedProcessThatRaiseNoAlarmAllocateNothing)
{
    const char* calls[] = {"read",    "getdents64",        "open_by_handle_at",
                           "unshare", "process_vm_writev", "sched_get_priority_max",
                           "bind",    "madvise",           "ptrace",
                           "accept",  "perf_event_open"};
    std::vector<Support::TraceEvent> events;
    for (const int pid : {shell, other, unknown}) {
        for (const char* call : calls) {
            events.push_back(Entry(pid, call));
        }
    }
    // The first time, the process is entered into the detectors' tables and the listed calls have their hourly alarm.
    unsigned long atFirst = 0;
    for (const Support::TraceEvent& event : events) {
        atFirst += AllocationsFor(event.Message());
    }
    EXPECT_GT(atFirst, 0U) << "the counter sees the code under test";
    EXPECT_FALSE(AlarmedPids().empty());
    for (const Support::TraceEvent& event : events) {
        EXPECT_EQ(AllocationsFor(event.Message()), 0U) << event.Message().name();
    }
    EXPECT_TRUE(AlarmedPids().empty());
}

}  // namespace
}  // namespace Engine
