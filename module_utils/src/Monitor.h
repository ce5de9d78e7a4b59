// SPDX-License-Identifier: Apache-2.0
// A scope guard: does one thing at once and another when the scope is left.
#pragma once

#include <functional>
#include <utility>

namespace Engine {

class Monitor {
public:
    // Runs `enter` and keeps `leave`. Throws std::bad_function_call when `enter` is empty, and what it throws.
    Monitor(const std::function<void()>& enter, std::function<void()> leave) : leave(std::move(leave)) { enter(); }
    Monitor(const Monitor&) = delete;
    Monitor& operator=(const Monitor&) = delete;

    // Runs `leave`. An empty one, or one that throws, ends the process: a destructor has no caller to tell.
    ~Monitor() { leave(); }

private:
    std::function<void()> leave;
};

}  // namespace Engine
