// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/TraceTime.h"

#include <limits>
#include <utility>

namespace SDK {

namespace {

constexpr std::int64_t none = std::numeric_limits<std::int64_t>::min();
constinit thread_local std::int64_t current = none;

}  // namespace

std::optional<std::chrono::nanoseconds> TraceTime::Current()
{
    if (current == none) {
        return std::nullopt;
    }
    return std::chrono::nanoseconds{current};
}

TraceTime::Scope::Scope() : before(current)
{
}

TraceTime::Scope::~Scope()
{
    current = before;
}

void TraceTime::Scope::MoveTo(std::chrono::nanoseconds when)
{
    current = when.count();
}

}  // namespace SDK
