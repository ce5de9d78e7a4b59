// SPDX-License-Identifier: Apache-2.0
// Who watches what. Watches are counted per (subscriber, text): asking twice gives one watch that goes with the second
// withdrawal; the events asked for are then combined, the options are the first one's.
// Thread: the task's only.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <string>
#include <string_view>
#include <vector>

#include "host/filenotify/WatchEntry.h"
#include "messages/FileNotifyMessages.h"

namespace Engine {

struct Watch {
    int number = 0;                               // from 1; unique in the agent's life
    const Framework::Task* subscriber = nullptr;  // part of the key, never called: it may be gone
    std::string subscriberName;                   // where notifications are sent; a name that is gone refuses them
    std::string text;                             // the path as it was given, letters included: the key
    WatchEntry entry;
    _FileNotifyOpt options;
    unsigned int count = 1;
    std::string path;        // as the host names it now, symbolic links resolved; kept up by MarkKeeper
    bool spent = false;      // it was to notify once and has
    std::uint64_t hits = 0;  // accesses that matched, notified or not

    // The second that `limit` counts in, and how many notifications it has seen.
    std::chrono::steady_clock::time_point secondBegan;
    std::int32_t sentInSecond = 0;
};

// One notification to send: the watch that matched first of the subscriber's, and what all of them wanted.
struct WatchMatch {
    const Watch* watch;
    std::uint64_t mask;
};

class WatchTable {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    // Returns the new or counted watch; the reference is good until the watch is removed.
    Watch& Add(const Framework::Task* subscriber, const std::string& text, const WatchEntry& entry,
               const _FileNotifyOpt& options);

    // Takes back one Add. False: there is no such watch.
    bool Remove(const Framework::Task* subscriber, const std::string& text);

    // Fills `matches`, one for each subscriber that is to hear of the access, in the order of their first watch, and
    // takes note of it for the options once, limit and countOnly. `mask`: the event's bits. `pid` is looked at only for
    // watches with excluded processes.
    void Match(std::string_view path, std::uint64_t mask, int pid, TimePoint now, std::vector<WatchMatch>& matches);

    // The watch with that number, null if it is gone.
    const Watch* Find(int number) const;
    bool Empty() const { return watches.empty(); }
    std::list<Watch>& Watches() { return watches; }
    const std::list<Watch>& Watches() const { return watches; }

private:
    std::list<Watch> watches;
    int lastNumber = 0;
};

}  // namespace Engine
