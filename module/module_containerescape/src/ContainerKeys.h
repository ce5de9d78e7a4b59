// SPDX-License-Identifier: Apache-2.0
// Short keys for containers: what detectors keep for a container is found by its key.
//
// A container's key stays the same while the container is used, also while all of its processes rest or end and others
// follow (a restart): a container that could end its own states could list directories before, and open files after
// that. So no exit and no stop notice ends a key. What ends it is that no event came for at least an hour, the length
// of the longest gate, and only on a host on which more than `keptContainers` were seen; short-lived containers in any
// number leave nothing more. Of more than `mostContainers` those without a recent event go sooner.
//
// Thread: the detection task's; no lock inside.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

namespace Engine {

// The owner of a state, counter or gate: a thread by its id, the host, or a container.
using ScopeKey = std::int64_t;
constexpr ScopeKey hostKey = -1;

class ContainerKeys {
public:
    static constexpr std::size_t keptContainers = 1024;
    static constexpr std::size_t mostContainers = 16384;

    // Above all thread ids. Allocates for a container that is new.
    ScopeKey Of(const std::string& containerId);

    // Ends the keys of idle containers and returns them. No key is given twice.
    std::vector<ScopeKey> DropIdle();

private:
    struct Container {
        ScopeKey key;
        bool isUsed;  // since the last round
    };
    // An id as engines make them, of 64 hexadecimal digits: there may be thousands, and the digits as a text would take
    // three times the memory.
    using Digits = std::array<std::uint64_t, 4>;
    struct DigitsHash {
        std::size_t operator()(const Digits& digits) const noexcept { return digits[0] ^ digits[3]; }
    };

    static bool Parse(const std::string& id, Digits& digits);
    Container& Find(const std::string& containerId);
    std::size_t Size() const { return numbered.size() + named.size(); }

    std::unordered_map<Digits, Container, DigitsHash> numbered;
    std::unordered_map<std::string, Container> named;  // otherwise
    std::string lastId;                                // asked for; saves looking for it again
    Container* last = nullptr;
    ScopeKey next = ScopeKey{1} << 32;
    std::int64_t lastRound = 0;  // seconds since the epoch
};

}  // namespace Engine
