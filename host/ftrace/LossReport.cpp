// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/LossReport.h"

#include "host/ftrace/Log.h"
#include "host/sdk/Config.h"
#include "host/sdk/Counters.h"

namespace Engine {
namespace {

using SDK::Counters;

void Increase(Counters::Counter& counter, std::uint64_t by)
{
    if (by != 0) {
        counter.fetch_add(by, std::memory_order_relaxed);
    }
}

}  // namespace

void LossReport::Add(const DeliverySums& sums)
{
    static Counters::Counter& read = Counters::Get(SDK::CounterName::traceRead);
    static Counters::Counter& callsRead = Counters::Get(SDK::CounterName::callsRead);
    static Counters::Counter& callsRefused = Counters::Get(SDK::CounterName::callsRefused);
    static Counters::Counter& notContainer = Counters::Get(SDK::CounterName::traceNotContainer);
    static Counters::Counter& lostQueue = Counters::Get(SDK::CounterName::traceLostQueue);
    static Counters::Counter& shed = Counters::Get(SDK::CounterName::traceShed);
    static Counters::Counter& unwanted = Counters::Get(SDK::CounterName::traceUnwanted);
    Increase(read, sums.read);
    Increase(callsRead, sums.callsRead);
    Increase(callsRefused, sums.callsRefused);
    Increase(notContainer, sums.notContainer);
    Increase(lostQueue, sums.lostQueue);
    Increase(shed, sums.shed);
    Increase(unwanted, sums.unwanted);
    inQueues.Add(sums.lostQueue);
    inStorms.Add(sums.shed);
}

void LossReport::Add(const KernelLoss& loss)
{
    static Counters::Counter& overrun = Counters::Get(SDK::CounterName::traceLostOverrun);
    static Counters::Counter& dropped = Counters::Get(SDK::CounterName::traceLostDropped);
    Increase(overrun, loss.overrun);
    Increase(dropped, loss.dropped);
    inKernel.Add(loss.overrun + loss.dropped);
}

void LossReport::Add(const SyscallLoss& loss)
{
    static Counters::Counter& dropped = Counters::Get(SDK::CounterName::traceLostDropped);
    static Counters::Counter& shed = Counters::Get(SDK::CounterName::traceShedKernel);
    Increase(dropped, loss.dropped);
    Increase(shed, loss.shed);
    inKernel.Add(loss.dropped);
    inStorms.Add(loss.shed);
}

void LossReport::AddLate(std::uint64_t events)
{
    static Counters::Counter& late = Counters::Get(SDK::CounterName::traceLate);
    Increase(late, events);
}

void LossReport::AddLostPages(std::uint64_t pages)
{
    static Counters::Counter& lostPages = Counters::Get(SDK::CounterName::traceLostPages);
    Increase(lostPages, pages);
}

void LossReport::Report(Clock::time_point now)
{
    if (const auto events = inKernel.TakeDue(now); events != 0) {
        TraceLog::Warning(
            "%?u events were lost in the kernel's buffers, detection may have missed something: make them larger "
            "(--buffer-kb)",
            events);
    }
    if (const auto events = inQueues.TakeDue(now); events != 0) {
        TraceLog::Warning(
            "%?u trace events were refused by a subscriber whose queue was full, detection may have missed something: "
            "watch fewer system calls or give it more of the CPU (%s)",
            events, SDK::Config::cpuShare);
    }
    if (const auto calls = inStorms.TakeDue(now); calls != 0) {
        TraceLog::Warning(
            "%?u system calls were left out so that containers that storm do not hide the others: find out which "
            "container makes so many of the watched calls, or watch fewer",
            calls);
    }
}

}  // namespace Engine
