// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/TraceTime.h"

#include <limits>
#include <utility>

namespace SDK {

namespace {

constexpr std::int64_t none = std::numeric_limits<std::int64_t>::min();
constinit thread_local std::int64_t current = none;
constinit thread_local const DeliveredEvent* delivered = nullptr;

}  // namespace

std::optional<std::chrono::nanoseconds> TraceTime::Current()
{
    if (current == none) {
        return std::nullopt;
    }
    return std::chrono::nanoseconds{current};
}

const DeliveredEvent* TraceTime::Event()
{
    return delivered;
}

TraceTime::Scope::Scope() : before(current), eventBefore(delivered)
{
}

TraceTime::Scope::~Scope()
{
    current = before;
    delivered = eventBefore;
}

void TraceTime::Scope::MoveTo(std::chrono::nanoseconds when, const DeliveredEvent* event)
{
    current = when.count();
    delivered = event;
}

}  // namespace SDK
