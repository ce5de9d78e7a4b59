// SPDX-License-Identifier: Apache-2.0
// What one more call costs a process that has made so many within the window already. The cost must not depend on how
// many those are: a caller would choose the cost of its own events otherwise.
#include <benchmark/benchmark.h>

#include <chrono>

#include "RateLimiter.h"

namespace {

using TimePoint = Engine::RateLimiter::TimePoint;

constexpr std::chrono::duration<long> window{1};
constexpr unsigned short maxCount = 300;

// Calls in order, at the rate that keeps `range` of them inside the window: each call adds one and drops one.
void SteadyRate(benchmark::State& state)
{
    const std::chrono::nanoseconds gap{std::chrono::nanoseconds{window}.count() / state.range(0)};
    Engine::RateLimiter limiter;
    TimePoint now{};
    for (std::int64_t call = 0; call < state.range(0); ++call) {
        limiter.Update(window, maxCount, now += gap);
    }
    for (auto step : state) {
        (void)step;
        benchmark::DoNotOptimize(limiter.Update(window, maxCount, now += gap));
    }
    state.counters["stored"] = static_cast<double>(limiter.Size());
}
BENCHMARK(SteadyRate)->Arg(300)->Arg(30'000)->Arg(3'000'000);

// A whole window's calls leave at once and their memory is given back.
void BurstLeaves(benchmark::State& state)
{
    for (auto step : state) {
        (void)step;
        state.PauseTiming();
        Engine::RateLimiter limiter;
        for (std::int64_t call = 0; call < state.range(0); ++call) {
            limiter.Update(window, maxCount, TimePoint{std::chrono::nanoseconds{call}});
        }
        state.ResumeTiming();
        benchmark::DoNotOptimize(limiter.Update(window, maxCount, TimePoint{std::chrono::seconds{10}}));
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BurstLeaves)->Arg(300)->Arg(30'000)->Arg(3'000'000);

}  // namespace
