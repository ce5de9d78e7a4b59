// SPDX-License-Identifier: Apache-2.0
// One-statement log sites for this folder, through the logger "filenotify_module". The level is checked before anything
// is formatted; what logging itself throws is swallowed.
#pragma once

#include <chrono>
#include <cstdint>
#include <utility>

namespace Engine {

// `format` as for printf(3). Any thread.
void NotifyWarning(const char* format, ...) __attribute__((format(printf, 1, 2)));
void NotifyNotice(const char* format, ...) __attribute__((format(printf, 1, 2)));

// What repeats: counts, and says at most once a minute that it is worth a log record.
class RepeatedReport {
public:
    // How many occurrences the record that is now due stands for, this one included; 0: none is due.
    std::uint64_t Occurred(std::chrono::steady_clock::time_point now)
    {
        ++unsaid;
        if (said && now - lastSaid < std::chrono::minutes{1}) {
            return 0;
        }
        said = true;
        lastSaid = now;
        return std::exchange(unsaid, 0);
    }

private:
    bool said = false;
    std::chrono::steady_clock::time_point lastSaid;
    std::uint64_t unsaid = 0;
};

}  // namespace Engine
