// SPDX-License-Identifier: Apache-2.0
// What an event costs that raises no alarm: no allocation, once its process is known to the detectors. A program of its
// own, because it counts every allocation of its thread.
#include <cstdlib>
#include <new>

#include "ContainerEscapeUtil.h"
#include "tests/module/DetectFixture.h"

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

class DetectorAllocationTest : public Support::DetectFixture, public testing::WithParamInterface<Scope> {};
INSTANTIATE_TEST_SUITE_P(Scopes, DetectorAllocationTest, testing::Values(Scope::Thread, Scope::Container));

TEST_P(DetectorAllocationTest, EventsOfATrackedProcessThatRaiseNoAlarmAllocateNothing)
{
    SDK::LoggerUtils::GetInstance()->SetLevel("information");
    // A window without length: however fast the test runs, every call of it is within the limit.
    task->AttachDetectors(std::chrono::seconds{0}, 300,
                          {"open_by_handle_at", "unshare", "perf_event_open", "process_vm_writev"}, GetParam());
    const auto allocationsFor = [this](const FtraceMessage& message) {
        const unsigned long before = allocations;
        for (int repeat = 0; repeat < 1000; ++repeat) {
            task->Receive(message);
        }
        return allocations - before;
    };
    std::vector<Support::TraceEvent> events;
    for (const int pid : {1001, 1002, 7}) {
        for (const char* call : {"read", "getdents64", "open_by_handle_at", "unshare", "process_vm_writev", "bind",
                                 "sched_get_priority_max", "madvise", "ptrace", "accept", "perf_event_open"}) {
            events.push_back(Support::Syscall(pid, call, ContainerEscapeUtil::GetSyscallNumber(call)));
        }
    }
    task->Know(1001);
    task->Know(1002);
    // The first time, the process is entered into the detectors' tables and the listed calls have their hourly alarm.
    unsigned long atFirst = 0;
    for (const Support::TraceEvent& event : events) {
        atFirst += allocationsFor(event.Message());
    }
    EXPECT_FALSE(Alarms().empty());
    EXPECT_GT(atFirst, 0U) << "the counter sees the code under test";
    for (const Support::TraceEvent& event : events) {
        EXPECT_EQ(allocationsFor(event.Message()), 0U) << event.Message().name();
    }
    EXPECT_TRUE(Alarms().empty());
}

}  // namespace
}  // namespace Engine
