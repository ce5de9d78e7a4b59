// SPDX-License-Identifier: Apache-2.0
// Merges messages that repeat within a time window: the first one of a key goes out, those that follow are counted
// into it until it is older than the window. Header-only.
//
// Thread: one at a time; no lock inside. Throws nothing but std::bad_alloc (and what copying a T throws).
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <string>
#include <utility>

#include "LogSite.h"
#include "sdk/TimeUtils.h"

namespace SDK {

template <class T>
struct RateFilterCache {
    std::int64_t timestamp;  // seconds since the epoch when the entry was added; merging does not refresh it
    std::uint64_t count;     // messages it stands for, the first included
    T msg;                   // the key
};

template <class T>
class RateFilter {
public:
    // More entries than this make room for a new one. Looked at before the insertion, hence one entry more at most.
    static constexpr std::size_t maxEntries = 1024;

    // `interval`: length of the window in seconds.
    explicit RateFilter(std::int32_t interval) : interval(interval) {}

    // True: nothing with this key went out within the window, the caller sends its message. False: merged into the
    // earlier one, the caller drops it. `tag` begins the filter's log lines (root logger, debug).
    bool CheckAndEnqueue(T msg, std::string tag)
    {
        Expire(tag);
        if (Merge(msg, tag)) {
            return false;
        }
        if (cache.size() > maxEntries) {
            cache.pop_front();
        }
        cache.push_back({TimeUtils::GetCurrentTimestampS(), 1, std::move(msg)});
        RootLog::Debug(At{"RateFilter", 68}, "%s add msg to cache: [%?d]", tag, cache.back().timestamp);
        return true;
    }

    // Forgets all entries, without a word about what was merged into them.
    void Clear() { cache.clear(); }

    // Oldest at the front.
    const std::list<RateFilterCache<T>>& Cache() const { return cache; }

private:
    // Removes the stale entries at the front and stops at the first fresh one. Compares the absolute difference: an
    // entry from the future, after the clock was set back, would otherwise swallow its key's messages for as long.
    void Expire(const std::string& tag)
    {
        const std::int64_t now = TimeUtils::GetCurrentTimestampS();
        while (!cache.empty() && Distance(now, cache.front().timestamp) > interval) {
            RootLog::Debug(At{"RateFilter", 78}, "%s clean old msg from cache: [%?d] [%?u]", tag,
                           cache.front().timestamp, cache.front().count);
            cache.pop_front();
        }
    }

    bool Merge(const T& msg, const std::string& tag)
    {
        for (RateFilterCache<T>& entry : cache) {
            if (entry.msg == msg) {
                RootLog::Debug(At{"RateFilter", 44}, "%s a msg is merged:", tag);
                ++entry.count;
                return true;
            }
        }
        return false;
    }

    static std::int64_t Distance(std::int64_t a, std::int64_t b) { return a > b ? a - b : b - a; }

    std::int32_t interval;
    std::list<RateFilterCache<T>> cache;
};

}  // namespace SDK
