// SPDX-License-Identifier: Apache-2.0
// The module's log sites: ModuleLog::Debug("shocker got event %d, state is %d", pid, state). See LogSite.h. Everything
// is written to the module's logger; the sources of module_utils and the alarm filter use SDK::RootLog instead.
#pragma once

#include <atomic>

#include "ContainerEscapeUtil.h"
#include "LogSite.h"

namespace Engine {

struct ModuleLogger {
    // Kept here too, so that a site that is above its priority costs no call, nor a look at a static's guard: there are
    // several on the way of every event.
    static Poco::Logger* Logger()
    {
        Poco::Logger* const known = kept.load(std::memory_order_acquire);
        return known != nullptr ? known : Fetch();
    }

private:
    [[gnu::cold]] [[gnu::noinline]] static Poco::Logger* Fetch()
    {
        Poco::Logger* const logger = ContainerEscapeUtil::GetLoggerPtr();
        kept.store(logger, std::memory_order_release);
        return logger;
    }

    static inline std::atomic<Poco::Logger*> kept{nullptr};
};

using ModuleLog = SDK::LogSite<ModuleLogger>;
using SDK::At;

}  // namespace Engine
