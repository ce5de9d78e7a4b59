// SPDX-License-Identifier: Apache-2.0
// A stretch of the kernel's trace to measure with: pages of two busy CPUs, recorded once from this kernel where that is
// possible, made by hand otherwise, and read again and again.
#pragma once

#include <benchmark/benchmark.h>

#include <cstddef>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "host/ftrace/CpuStream.h"
#include "host/ftrace/EventCatalog.h"
#include "host/ftrace/EventDelivery.h"
#include "host/ftrace/SubscriptionTable.h"
#include "host/ftrace/TraceMerger.h"
#include "tests/support/PageBuilder.h"

namespace Engine::Bench {

// The system calls in it, in turn: what listing a directory makes, and two that policies list.
inline constexpr const char* recordedCalls[] = {"getdents64", "ptrace", "setns"};

// Never changed after it was made.
struct Recording {
    std::vector<std::deque<Support::Bytes>> pages;  // of each CPU, in order
    std::vector<std::string> formats;               // the text of each event's format file, as recordedCalls
    std::size_t events = 0;
    std::set<int> threads;  // that made the calls
    std::string origin;     // for the report
};

// Made at the first call. Recording takes root and tracefs, and an instance of its own meanwhile.
const Recording& TheRecording();

// Ends a measurement in which each iteration was to see the whole recording: an error when it did not.
void Report(benchmark::State& state, std::size_t seen);

// Decodes every record with the library alone: page to records, the record's event, its field common_pid. Returns how
// many there were; `add` gets each pid.
class BareDecoder {
public:
    explicit BareDecoder(const std::vector<std::string>& formats);
    ~BareDecoder();
    BareDecoder(const BareDecoder&) = delete;
    BareDecoder& operator=(const BareDecoder&) = delete;

    template <class Add>
    std::size_t Decode(const std::vector<std::deque<Support::Bytes>>& pages, Add add)
    {
        std::size_t seen = 0;
        for (const auto& cpu : pages) {
            for (const Support::Bytes& page : cpu) {
                for (bool more = Load(page); more; more = Next(), ++seen) {
                    add(Pid());
                }
            }
        }
        return seen;
    }

private:
    struct State;
    bool Load(const Support::Bytes& page);
    bool Next();
    int Pid() const;

    std::unique_ptr<State> state;
};

// The host's way of an event, from TheRecording's pages to a task's queue.
class ReplayedTrace {
public:
    // `task` subscribes to every event of the recording and gets them all, whatever its name.
    explicit ReplayedTrace(Framework::Task& task);

    // Sends the whole recording through once; `task` handles what it got after each round on this thread.
    void Play();

private:
    Framework::Task* task;
    std::shared_ptr<EventCatalog> catalog;
    TraceCounts counts;
    TraceOutlet outlet;
    SubscriptionTable table;
    EventDelivery delivery;
    std::vector<Support::MemoryPages*> sources;
    std::unique_ptr<TraceMerger> merger;
};

}  // namespace Engine::Bench
