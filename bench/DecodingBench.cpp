// SPDX-License-Identifier: Apache-2.0
// What decoding alone costs on the pages that the other benchmarks of the same program use: their measure.
#include "bench/Pages.h"

namespace {

void DecodingAlone(benchmark::State& state)
{
    Engine::Bench::BareDecoder decoder{Engine::Bench::TheRecording().formats};
    std::size_t seen = 0;
    long pids = 0;
    for ([[maybe_unused]] auto _ : state) {
        seen += decoder.Decode(Engine::Bench::TheRecording().pages, [&pids](int pid) { pids += pid; });
    }
    benchmark::DoNotOptimize(pids);
    Engine::Bench::Report(state, seen);
}
BENCHMARK(DecodingAlone);

}  // namespace
