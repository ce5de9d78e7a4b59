// SPDX-License-Identifier: Apache-2.0
// At most one alarm of a kind in a time for each owner.
//
// Memory: an entry for each owner that raised an alarm, until Forget.   Thread: the detection task's; no lock inside.
#pragma once

#include <chrono>
#include <unordered_map>

#include "ContainerEscapeDetectPolicyContent.h"
#include "ContainerKeys.h"

namespace Engine {

class AlarmGates {
public:
    static constexpr std::chrono::seconds hour{3600};

    // `gap`: from an alarm on, by the wall clock in either direction. Zero: no gate ever closes.
    explicit AlarmGates(std::chrono::seconds gap) : gap(gap) {}
    // An hour for each container, none in the scope of threads.
    explicit AlarmGates(Scope scope) : AlarmGates(scope == Scope::Container ? hour : std::chrono::seconds::zero()) {}

    // Closes the owner's gate for the gap. False: it was closed already, the caller raises no alarm.
    bool TryClose(ScopeKey owner);

    // The alarm did not go out: the next one may.
    void Open(ScopeKey owner) { closed.erase(owner); }

    void Forget(ScopeKey owner) { closed.erase(owner); }
    void Clear() { closed.clear(); }

private:
    std::chrono::seconds gap;
    std::unordered_map<ScopeKey, long> closed;  // since when, in seconds since the epoch
};

}  // namespace Engine
