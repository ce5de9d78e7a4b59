// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <algorithm>
#include <array>
#include <cstdint>
#include <memory>
#include <string>

namespace SDK {

// Which container most events come from, in constant memory: the algorithm of Misra and Gries. Whatever makes more than
// a fifth of the events is among the places at the end, and the place with the highest count is taken.
// Thread: one at a time. Counting an event of a container that has a place takes some comparisons.
class LoudestContainer {
public:
    using Text = std::shared_ptr<const std::string>;

    void Count(const Text& container)
    {
        Place* free = nullptr;
        for (Place& place : places) {
            if (place.count != 0 && (place.container == container || *place.container == *container)) {
                ++place.count;
                return;
            }
            free = place.count == 0 ? &place : free;
        }
        if (free != nullptr) {
            *free = {container, 1};
            return;
        }
        for (Place& place : places) {
            --place.count;
        }
    }

    // Empty: there were no events since the last call. Begins anew.
    std::string Take()
    {
        const auto most = std::max_element(places.begin(), places.end(),
                                           [](const Place& a, const Place& b) { return a.count < b.count; });
        std::string loudest = most->count == 0 ? std::string{} : *most->container;
        places = {};
        return loudest;
    }

private:
    struct Place {
        Text container;
        std::uint64_t count = 0;  // 0: free
    };

    std::array<Place, 4> places;
};

}  // namespace SDK
