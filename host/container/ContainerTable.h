// SPDX-License-Identifier: Apache-2.0
// The threads of the host and the containers that they belong to, with what held a moment ago.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "host/sdk/SystemView.h"

namespace Engine {

// Keyed by thread id, because the events are: pid, parent_pid, child_pid and common_pid are ids of threads.
//
// Thread: ContainerAt, Size, MayBeEntering and FindKept from any; everything else from the one that writes. That one
//         writes under the mutex and reads without it.
// Errors: throws nothing but std::bad_alloc.
// Times:  nanoseconds on the trace clock, CLOCK_MONOTONIC.
class ContainerTable {
public:
    using Nanoseconds = std::chrono::nanoseconds;
    using Text = std::shared_ptr<const std::string>;

    // Host threads that fork events tell of are not stored above this number of entries; each is then looked up in
    // /proc when it is asked about.
    static constexpr std::size_t maxHostEntries = 100000;
    // How long the dead still answer: questions about them lag behind the events.
    static constexpr Nanoseconds keepDead = std::chrono::seconds{5};
    static constexpr Nanoseconds longAgo = Nanoseconds::min();
    static constexpr Nanoseconds alive = Nanoseconds::max();

    // Entering: in the container's control group, but still the runtime that sets the container up. To everything
    // outside of the registry this is a process of the host.
    enum class State : unsigned char { Host, Entering, Inside };

    struct Entry {
        State state = State::Host;
        bool inSetUp = false;      // runs a runtime that re-executed itself, or was forked by one
        bool bornInSetUp = false;  // was forked by one: it is what a runtime made for the container's program
        bool hasForked = false;    // Inside, and has forked there or was forked there
        bool wasMovedInside =
            false;       // a process of the host has moved it, or what forked it, when it was Inside already
        Text container;  // null for the host
        Nanoseconds since = longAgo;  // when the container that others see last changed
        Text before;                  // the one until then, null for none
        Nanoseconds seen = longAgo;   // it is known to have started by then
        int parent = -1;              // the thread that forked it
        std::uint32_t identity = 0;   // ProcessIdentity::number of its process; 0: none, or not known
        Nanoseconds exit = alive;
        Text executable;                                      // as its last exec named it; null when that was not seen
        std::shared_ptr<const SDK::ProcessDetails> executed;  // at its last exec, or its ancestor's; null: not known

        bool IsInside() const { return state == State::Inside; }
        bool IsAlive() const { return exit == alive; }
        // What others are told: null for the host and while the container is still being set up.
        Text Visible() const { return IsInside() ? container : nullptr; }
        // Keeps what others were told until then.
        void MoveTo(State next, Text nextContainer, Nanoseconds when);
    };

    // Null for an empty text, and the other way round.
    static Text Shared(std::string_view text)
    {
        return text.empty() ? nullptr : std::make_shared<const std::string>(text);
    }
    static bool Same(const Text& text, std::string_view other)
    {
        return (text == nullptr ? std::string_view{} : std::string_view{*text}) == other;
    }

    // Null for an unknown id. The dead are found, too, for a while. Good until the next call that changes the table.
    const Entry* Find(int tid) const;

    // Takes an entry in, in place of the one with that id.
    void Put(int tid, Entry entry);
    // The same, but a host thread for which there is no room is forgotten.
    void PutIfRoom(int tid, Entry entry);

    // Changes the entry of that id, which must be there.
    template <class Change>
    void Update(int tid, Change change)
    {
        const std::lock_guard lock{mutex};
        change(entries.at(tid));
    }

    void Erase(int tid);

    // Makes an entry for an id that is unknown: an exit may come before its fork.
    void MarkExit(int tid, Nanoseconds when);

    // Drops what has been dead for longer than keepDead.
    void Purge(Nanoseconds now);

    const std::unordered_map<int, Entry>& Entries() const { return entries; }

    // The container as others see it, at a time or now: null for the host. Nothing for an unknown id. `isHostNow`: the
    // id is a process of the host by now, which the table is not told of; it is not the dead one's any more. Any
    // thread.
    std::optional<Text> ContainerAt(int tid, std::optional<Nanoseconds> when, bool isHostNow = false) const;

    // Any thread.
    std::size_t Size() const;

    // As ContainerResolver's. Any thread.
    bool MayBeEntering(int tid) const;
    std::optional<SDK::ContainerResolver::Kept> FindKept(int tid, std::optional<Nanoseconds> when) const;

private:
    mutable std::mutex mutex;
    std::unordered_map<int, Entry> entries;
    std::deque<std::pair<int, Nanoseconds>> dead;  // in the order of their exits
};

}  // namespace Engine
