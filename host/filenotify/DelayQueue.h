// SPDX-License-Identifier: Apache-2.0
// Holds items back for one fixed time. First in, first out; the clock is the caller's, nobody sleeps here.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <optional>
#include <utility>

namespace Engine {

template <class T>
class DelayQueue {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    // With more than `capacity` items the oldest are due at once: an item comes early rather than not at all.
    DelayQueue(std::chrono::steady_clock::duration delay, std::size_t capacity) : delay(delay), capacity(capacity) {}

    // REQUIRES: `now` not earlier than at the push before.
    void Push(T item, TimePoint now) { items.emplace_back(now + delay, std::move(item)); }

    // The oldest item if it is due.
    std::optional<T> Pop(TimePoint now)
    {
        if (items.empty() || (items.front().first > now && items.size() <= capacity)) {
            return std::nullopt;
        }
        std::optional<T> item{std::move(items.front().second)};
        items.pop_front();
        return item;
    }

    // When Pop gives the next item at the latest; empty: there is none.
    std::optional<TimePoint> NextDue() const
    {
        return items.empty() ? std::nullopt : std::optional{items.front().first};
    }

private:
    std::chrono::steady_clock::duration delay;
    std::size_t capacity;
    std::deque<std::pair<TimePoint, T>> items;
};

}  // namespace Engine
