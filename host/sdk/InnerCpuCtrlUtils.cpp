// SPDX-License-Identifier: Apache-2.0
#include "sdk/InnerCpuCtrlUtils.h"

#include <algorithm>
#include <atomic>
#include <limits>
#include <thread>

#include "host/sdk/CpuShare.h"
#include "sdk/LoggerUtils.h"
#include "sdk/StrUtils.h"

namespace SDK {

namespace {

std::atomic<unsigned int> share{0};  // percent; 0: no limit

std::chrono::nanoseconds AsTime(unsigned long ticks)
{
    constexpr auto most = static_cast<unsigned long>(std::numeric_limits<std::int64_t>::max());
    return std::chrono::nanoseconds{static_cast<std::int64_t>(std::min(ticks, most))};
}

void LogPause(const char* file, int line, const char* label, std::chrono::nanoseconds pause)
{
    Poco::Logger* const logger = LoggerUtils::GetInstance()->GetRootLogger();
    if (!logger->trace()) {
        return;
    }
    const std::string text =
        StrUtils::Format("%s rests for %lld us to keep its CPU share", label != nullptr ? label : "a thread",
                         static_cast<long long>(pause.count() / 1000));
    logger->log(Poco::Message(logger->name(), text, Poco::Message::PRIO_TRACE, file, line));
}

}  // namespace

bool InnerCpuCtrlUtils::IsEnabled()
{
    return share.load(std::memory_order_relaxed) != 0;
}

std::uint64_t InnerCpuCtrlUtils::GetSuggestedRunTick()
{
    return static_cast<std::uint64_t>(CpuShare::RunTime(share.load(std::memory_order_relaxed)).count());
}

void InnerCpuCtrlUtils::AdjustThreadCpu(const char* file, int line, const char* label, unsigned long /*now*/,
                                        unsigned long elapsed)
{
    const std::chrono::nanoseconds pause = CpuShare::PauseFor(AsTime(elapsed), share.load(std::memory_order_relaxed));
    if (pause.count() <= 0) {
        return;
    }
    LogPause(file, line, label, pause);
    std::this_thread::sleep_for(pause);
}

void InnerCpuCtrlUtils::SetShare(unsigned int percent)
{
    share.store(percent < 100 ? percent : 0, std::memory_order_relaxed);
}

}  // namespace SDK
