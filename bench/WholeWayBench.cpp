// SPDX-License-Identifier: Apache-2.0
// The whole way of an event: from the kernel's page through decoding, merging, batches and the queue into the detection
// task with its detectors, beside what decoding alone costs on the same pages. Aims: at most one and a half times as
// much for events of processes that are in no container, twice for those that are.
#include <benchmark/benchmark.h>

#include "bench/DetectWorld.h"
#include "bench/Pages.h"

namespace {

using Engine::Bench::DetectWorld;
using Engine::Bench::Report;
using Engine::Bench::TheRecording;

void WholeWay(benchmark::State& state, bool known)
{
    DetectWorld world;
    if (known) {
        for (const int thread : TheRecording().threads) {
            world.Know(thread);
        }
    }
    Engine::Bench::ReplayedTrace trace{*world.task};
    trace.Play();  // the first time, tables are entered and the hourly alarms go out
    const std::size_t before = world.task->seen;
    const std::size_t droppedBefore = world.task->dropped;
    for ([[maybe_unused]] auto _ : state) {
        trace.Play();
    }
    const std::size_t seen = world.task->seen - before;
    Report(state, seen);
    if (world.task->dropped - droppedBefore != (known ? 0 : seen)) {
        state.SkipWithError("events did not go the way that is measured");
    }
}
BENCHMARK_CAPTURE(WholeWay, unknownProcess, false);
BENCHMARK_CAPTURE(WholeWay, knownProcess, true);

}  // namespace
