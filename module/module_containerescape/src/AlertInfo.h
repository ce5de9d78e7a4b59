// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>
#include <string>

namespace Engine {

// What a detector knows about an alarm. Made on the stack for each alarm, filled by the detector (the constants of its
// alarm class, the process) and completed by BaseSubmodule::Alert. The numbers' codes are the management side's.
struct AlertInfo {
    std::string eventName;         // for people; repeated alarms of one name are merged
    std::uint16_t confidence = 0;  // percent
    std::int32_t ppid = 0;         // refreshed by Alert where the process can still be asked
    std::string processName;       // the same
    std::string extra;             // reserved; not part of the alarm document
    std::int32_t pid = 0;          // the offending process
    std::int32_t attackPhase = 0;
    std::int32_t attackTag = 0;
    std::int32_t severity = 0;
    std::int32_t eventCategory = 0;
    std::int32_t eventType = 0;
    std::string classId;  // the alarm class, "containerescape_0001" and so on
};

// The constant part of one detector's alarms.
struct AlarmClass {
    const char* classId;
    const char* eventName;
    std::int32_t attackPhase;
    std::int32_t attackTag;
    std::int32_t severity;
    std::int32_t eventCategory;
    std::int32_t eventType;
    std::uint16_t confidence;

    // Leaves the process alone.
    void CopyTo(AlertInfo& info) const
    {
        info.classId = classId;
        info.eventName = eventName;
        info.attackPhase = attackPhase;
        info.attackTag = attackTag;
        info.severity = severity;
        info.eventCategory = eventCategory;
        info.eventType = eventType;
        info.confidence = confidence;
    }
};

}  // namespace Engine
