// SPDX-License-Identifier: Apache-2.0
// A bounded queue for any number of producers and consumers, none of which ever blocks another. What one thread
// enqueues comes out in the order in which it went in; between threads there is no order.
//
// Ownership: items are copied or moved in and moved out; those still inside end with the queue.
// Thread:    any, but for the constructor, the destructor and SetCapacity.
// Errors:    a full queue refuses; the caller decides what that means.
#pragma once

#include <concurrentqueue/concurrentqueue.h>

#include <atomic>
#include <cstddef>
#include <vector>

namespace SDK {

template <class T>
class LocklessQueue {
public:
    // A queue of capacity 0 takes nothing until SetCapacity.
    explicit LocklessQueue(std::size_t capacity = 0) : capacity(capacity), items(capacity) {}

    // In items. What is stored stays. Not while another thread uses the queue.
    void SetCapacity(std::size_t newCapacity) { capacity = newCapacity; }

    // Returns how many were stored: 1, or 0 when the queue is full or has no capacity.
    std::size_t Enqueue(T item)
    {
        if (count.fetch_add(1, std::memory_order_seq_cst) >= capacity || !items.enqueue(std::move(item))) {
            count.fetch_sub(1, std::memory_order_seq_cst);
            return 0;
        }
        return 1;
    }

    // Stores all of them and returns how many; 0, and none is stored, when they do not fit.
    std::size_t EnqueueBulk(const std::vector<T>& more)
    {
        if (more.empty()) {
            return 0;
        }
        if (count.fetch_add(more.size(), std::memory_order_seq_cst) + more.size() > capacity ||
            !items.enqueue_bulk(more.begin(), more.size())) {
            count.fetch_sub(more.size(), std::memory_order_seq_cst);
            return 0;
        }
        return more.size();
    }

    // Returns 1 and the oldest item, or 0 when there is none.
    std::size_t Dequeue(T& item)
    {
        if (!items.try_dequeue(item)) {
            return 0;
        }
        count.fetch_sub(1, std::memory_order_seq_cst);
        return 1;
    }

    // Replaces `out` with at most `max` items, oldest first. Returns how many.
    std::size_t DequeueBulk(std::vector<T>& out, std::size_t max)
    {
        out.resize(max);
        const std::size_t taken = items.try_dequeue_bulk(out.begin(), max);
        out.resize(taken);
        count.fetch_sub(taken, std::memory_order_seq_cst);
        return taken;
    }

    // Items stored, or just about to be: above 0 does not promise that the next Dequeue finds one.
    std::size_t Size() const { return count.load(std::memory_order_seq_cst); }

private:
    std::size_t capacity;
    std::atomic<std::size_t> count{0};
    moodycamel::ConcurrentQueue<T> items;
};

}  // namespace SDK
