// SPDX-License-Identifier: Apache-2.0
#include "AlarmGates.h"

#include <cstdlib>

#include "sdk/TimeUtils.h"

namespace Engine {

bool AlarmGates::TryClose(ScopeKey owner)
{
    if (gap == std::chrono::seconds::zero()) {
        return true;
    }
    const long now = SDK::TimeUtils::GetCurrentTimestampS();
    const auto gate = closed.find(owner);  // nearly always it is there, and closed
    if (gate == closed.end()) {
        return closed.emplace(owner, now).second;
    }
    if (std::chrono::seconds{std::labs(now - gate->second)} < gap) {
        return false;
    }
    gate->second = now;
    return true;
}

}  // namespace Engine
