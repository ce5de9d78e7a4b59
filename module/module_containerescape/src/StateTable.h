// SPDX-License-Identifier: Apache-2.0
// The rows that a detector's state machine consists of.
#pragma once

#include <optional>

namespace Engine {

template <class State, class Trigger>
struct Step {
    State from;
    std::optional<Trigger> on;  // empty: anything
    State to;
};

// The state after `seen`. What no row names leaves the state alone; of several rows the first counts.
template <class Steps, class State, class Trigger>
constexpr State Next(const Steps& steps, State state, const Trigger& seen)
{
    for (const Step<State, Trigger>& step : steps) {
        if (step.from == state && (!step.on || *step.on == seen)) {
            return step.to;
        }
    }
    return state;
}

}  // namespace Engine
