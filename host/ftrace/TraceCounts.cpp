// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/TraceCounts.h"

#include <string>
#include <utility>

#include "host/ftrace/Log.h"
#include "host/sdk/Counters.h"
#include "host/sdk/Impairments.h"

namespace Engine {
namespace {

namespace Name = SDK::CounterName;

struct Row {
    std::uint64_t TraceCounts::*count;
    SDK::Counters::Counter& published;
    SDK::RepeatedReport TraceCounts::*loss;  // null: none
};

}  // namespace

void TraceCounts::Publish()
{
    using SDK::Counters;
    static const Row rows[] = {
        {&TraceCounts::read, Counters::Get(Name::traceRead), nullptr},
        {&TraceCounts::callsRead, Counters::Get(Name::callsRead), nullptr},
        {&TraceCounts::notContainer, Counters::Get(Name::traceNotContainer), nullptr},
        {&TraceCounts::shed, Counters::Get(Name::traceShed), &TraceCounts::inStorms},
        {&TraceCounts::lostQueue, Counters::Get(Name::traceLostQueue), &TraceCounts::inQueues},
        {&TraceCounts::unwanted, Counters::Get(Name::traceUnwanted), nullptr},
        {&TraceCounts::callsRefused, Counters::Get(Name::callsRefused), nullptr},
        {&TraceCounts::lostOverrun, Counters::Get(Name::traceLostOverrun), &TraceCounts::inKernel},
        {&TraceCounts::lostDropped, Counters::Get(Name::traceLostDropped), &TraceCounts::inKernel},
        {&TraceCounts::lostLives, Counters::Get(Name::traceLostLives), &TraceCounts::inKernel},
        {&TraceCounts::shedLives, Counters::Get(Name::traceShedLives), nullptr},
        {&TraceCounts::shedKernel, Counters::Get(Name::traceShedKernel), &TraceCounts::inStorms},
        {&TraceCounts::late, Counters::Get(Name::traceLate), nullptr},
        {&TraceCounts::lostPages, Counters::Get(Name::traceLostPages), nullptr},
    };
    for (const Row& row : rows) {
        const std::uint64_t fresh = std::exchange(this->*row.count, 0);
        if (fresh == 0) {
            continue;
        }
        row.published.fetch_add(fresh, std::memory_order_relaxed);
        if (row.loss != nullptr) {
            (this->*row.loss).Add(fresh);
        }
    }
}

void TraceCounts::Warn(std::chrono::steady_clock::time_point now)
{
    const std::pair<SDK::RepeatedReport&, const char*> places[] = {
        {inKernel,
         "%?u events were lost in the kernel's buffers, detection may have missed something: make them larger "
         "(--buffer-kb)%s"},
        {inQueues,
         "%?u trace events were refused by a subscriber's full queue, detection may have missed something: "
         "watch fewer system calls%s"},
        {inStorms,
         "%?u system calls were excluded so that containers that storm do not hide the others: watch fewer, or find "
         "out why a container makes so many of them%s"},
    };
    constexpr std::chrono::seconds patience{2};
    const std::string loudest = SDK::Impairments::Loudest(SDK::Impairments::Source::Trace);
    const bool isQuiet = inKernel.IsEmpty() && inQueues.IsEmpty() && inStorms.IsEmpty();
    quietAt = isQuiet ? now : quietAt;
    if (loudest.empty() && now - quietAt < patience) {
        return;  // it is told once a second, and the next warning comes in a minute
    }
    for (const auto& [lost, text] : places) {
        if (const std::uint64_t events = lost.TakeDue(now); events != 0) {
            TraceLog::Warning(text, events,
                              loudest.empty() ? loudest : "; most events lately are of container " + loudest);
        }
    }
}

}  // namespace Engine
