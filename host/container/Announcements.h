// SPDX-License-Identifier: Apache-2.0
// Which processes the receivers of container notices have been told about.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <unordered_map>
#include <vector>

#include "framework/Message.h"

namespace Engine {

// A receiver keeps a table of bounded size: the detection task, at more than 640 records, forgets every live process at
// once, and what those do is not seen from then on. Notices are idempotent, so the collector tells in generations. In
// one generation each process is announced once, at most `limit` of them. Then the generation ends: a stop notice goes
// out for each process that was announced in it, and all are announced anew when they act again.
//
// An id stays in the map until the receivers have handled the stop notice for it: a message at the end of the stop
// notices (EndOfGeneration) tells. What is under way when a receiver ends, or refused by a full queue, is therefore
// still known when everything is announced anew.
//
// Thread: one at a time, but for the handling of EndOfGeneration.   Errors: throws nothing but std::bad_alloc.
class Announcements {
public:
    // Below 640 by what one fork and one notice put in between two looks.
    static constexpr std::size_t limit = 600;

    // Whether the receivers were told of that process in this generation: by a start notice, or by its fork.
    bool IsAnnounced(int tid) const;

    bool HasRoomFor(std::size_t more) const { return announced + more <= limit; }
    std::size_t Size() const { return announced; }

    void Add(int tid);

    // A stop notice goes out for that process alone. False when it was not announced, so that none is needed.
    bool Remove(int tid);

    // Ends the generation. Returns the ids that need a stop notice now: of the processes announced in it, or, where
    // messages may have been lost, also of those whose earlier stop notices are not known to have been handled.
    enum class Loss : bool { None, Possible };
    std::vector<int> EndGeneration(Loss loss);

    // To be sent behind the stop notices of the generation that has just ended, to so many receivers.
    std::shared_ptr<Framework::Message> EndOfGeneration(int receivers) const;

    // Whether the receivers have handled everything up to the end of the last generation.
    bool IsEndHandled() const { return ended->load() >= generation; }

    // Forgets the ids whose stop notices have been handled.
    void ForgetStopped();

private:
    class EndMessage;

    std::unordered_map<int, std::uint64_t> generations;  // in which each id was last announced
    std::size_t announced = 0;                           // in the present one
    std::uint64_t generation = 1;
    std::uint64_t forgotten = 0;  // generations before this one have been dropped
    // Generations before this one have ended for every receiver. Shared with the messages that are under way.
    std::shared_ptr<std::atomic<std::uint64_t>> ended = std::make_shared<std::atomic<std::uint64_t>>(0);
};

}  // namespace Engine
