// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <cstdint>

namespace SDK {

class TimeUtils {
public:
    // Whole seconds since 1970-01-01 UTC, by the system view's wall clock.
    static std::int64_t GetCurrentTimestampS();

    // CPU time that the calling thread has used, in nanoseconds. Never runs backwards on one thread.
    static std::uint64_t GetCurrentSystemTickUsed();
};

}  // namespace SDK
