// SPDX-License-Identifier: Apache-2.0
// What keeps detection from seeing, on its way from the place that notices it to the alarm that tells of it. Losses of
// events are not reported here, their counters tell of them.
#pragma once

#include <string>
#include <vector>

namespace SDK {

// Any thread. No call waits for anything but another such call.
class Impairments {
public:
    struct Item {
        std::string cause;   // a word or two, always the same for one kind
        std::string detail;  // one sentence
    };

    // Where events come from; each has a container that most of them are from.
    enum class Source { Trace, Files };

    static constexpr std::size_t maxItems = 64;  // that wait; more are dropped

    static void Report(std::string cause, std::string detail);
    static std::vector<Item> Take();

    // The container with the most events lately, as far as the source knows; empty: none.
    static void SetLoudest(Source source, const std::string& container);
    static std::string Loudest(Source source);
};

}  // namespace SDK
