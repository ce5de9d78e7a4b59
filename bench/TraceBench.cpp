// SPDX-License-Identifier: Apache-2.0
// What an event costs from the kernel's page to the task that drops it, beside what decoding alone costs on the same
// pages. Aim: at most one and a half times as much.
#include <map>

#include "bench/Pages.h"
#include "framework/Task.h"

namespace {

// Knows as many processes as the detection task does at most, and none of those that the events are of.
class DroppingTask : public Framework::Task, public Engine::AbstractMessage<Engine::FtraceMessage>::Receiver {
public:
    DroppingTask() : Task("dropping", "", Framework::TaskCondition::EventLoop, 1024)
    {
        for (int i = 0; i < 640; ++i) {
            procs[1'000'000'000 + i] = i;  // beyond what the kernel gives, PID_MAX_LIMIT in include/linux/threads.h
        }
    }

    int Receive(const Engine::FtraceMessage& event) override
    {
        ++seen;
        return procs.contains(static_cast<int>(event.get_number("common_pid"))) ? 0 : -1;
    }

    std::size_t seen = 0;

private:
    std::map<int, int> procs;
};

void FromPageToTask(benchmark::State& state)
{
    DroppingTask task;
    Engine::Bench::ReplayedTrace trace{task};
    for ([[maybe_unused]] auto _ : state) {
        trace.Play();
    }
    Engine::Bench::Report(state, task.seen);
}
BENCHMARK(FromPageToTask);

}  // namespace
