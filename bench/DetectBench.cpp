// SPDX-License-Identifier: Apache-2.0
// What an event costs the detection task, by what it is, on the real module and the real framework. "faked": processes
// are a table in memory; "live": they are asked of /proc, as in the agent.
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <vector>

#include "bench/DetectWorld.h"
#include "tests/support/FakeSystem.h"
#include "tests/support/TraceEventBuilder.h"

namespace {

using Engine::Bench::DetectWorld;
using Support::TraceEvent;

constexpr int knownPid = DetectWorld::firstKnown;
constexpr int unknownPid = 7;

void Deliver(benchmark::State& state, DetectWorld& world, const std::vector<TraceEvent>& events, int expected)
{
    for (const TraceEvent& event : events) {
        world.task->Receive(event.Message());  // the first time, tables are entered and the hourly alarm goes out
    }
    const std::size_t before = world.task->dropped;
    for ([[maybe_unused]] auto _ : state) {
        for (const TraceEvent& event : events) {
            benchmark::DoNotOptimize(world.task->Receive(event.Message()));
        }
    }
    const std::size_t total = static_cast<std::size_t>(state.iterations()) * events.size();
    if (world.task->dropped - before != (expected == -1 ? total : 0)) {
        state.SkipWithError("events did not go the way that is measured");
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(total));
}

std::vector<TraceEvent> CallsOf(int pid)
{
    return {Support::Syscall(pid, "getdents64", 217), Support::Syscall(pid, "ptrace", 101),
            Support::Syscall(pid, "setns", 308)};
}

void UnknownProcess(benchmark::State& state)
{
    Support::FakeSystem system;
    DetectWorld world;
    Deliver(state, world, CallsOf(unknownPid), -1);
}
BENCHMARK(UnknownProcess);

void KnownProcessWithoutAlarm(benchmark::State& state, Engine::Scope scope)
{
    Support::FakeSystem system;
    DetectWorld world{std::chrono::seconds{1}, 300, scope};
    Deliver(state, world, CallsOf(knownPid), 0);
}
BENCHMARK_CAPTURE(KnownProcessWithoutAlarm, ofItsThread, Engine::Scope::Thread);
BENCHMARK_CAPTURE(KnownProcessWithoutAlarm, ofItsContainer, Engine::Scope::Container);

// In a container, the table fills up and is pruned every 640 forks, which is part of the cost.
void Fork(benchmark::State& state, const char* container)
{
    constexpr int children = 4096;
    Support::FakeSystem system;
    system.PutInContainer(knownPid, container);
    DetectWorld world;
    SDK::LoggerUtils::GetInstance()->SetLevel("warning");
    std::vector<TraceEvent> forks;
    for (int child = 0; child < children; ++child) {
        forks.push_back(Support::Fork(knownPid, "sh", 1'100'000'000 + child));
    }
    Deliver(state, world, forks, *container == '\0' ? -1 : 0);
}
BENCHMARK_CAPTURE(Fork, ofTheHost, "");
BENCHMARK_CAPTURE(Fork, inAContainer, DetectWorld::container);

// Every call is over the limit: each makes an alarm, which the filter merges into the first of its two seconds.
void MergedAlarm(benchmark::State& state, int pid)
{
    DetectWorld world{std::chrono::duration<long>{0}, 0};
    world.Know(pid);
    Deliver(state, world, {Support::Syscall(pid, "open_by_handle_at", 304)}, 0);
}

void FakedMergedAlarm(benchmark::State& state)
{
    Support::FakeSystem system;
    system.Put(knownPid, {{1, "probe"}, DetectWorld::container, "/usr/bin/probe", {}});
    MergedAlarm(state, knownPid);
}
BENCHMARK(FakedMergedAlarm);

void LiveMergedAlarm(benchmark::State& state)
{
    MergedAlarm(state, ::getpid());
}
BENCHMARK(LiveMergedAlarm);

}  // namespace
