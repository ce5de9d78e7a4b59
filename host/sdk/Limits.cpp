// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/Limits.h"

#include <sys/resource.h>

#include <algorithm>
#include <array>
#include <mutex>
#include <optional>
#include <string>

#include "host/sdk/Impairments.h"

namespace SDK {

namespace {

// By number (include/uapi/asm-generic/resource.h).
constexpr std::array<const char*, RLIMIT_NLIMITS> names{"CPU",      "FSIZE",  "DATA",    "STACK", "CORE",  "RSS",
                                                        "NPROC",    "NOFILE", "MEMLOCK", "AS",    "LOCKS", "SIGPENDING",
                                                        "MSGQUEUE", "NICE",   "RTPRIO",  "RTTIME"};

std::string Text(rlim_t limit)
{
    return limit == RLIM_INFINITY ? "unlimited" : std::to_string(limit);
}

rlimit Get(std::size_t which)
{
    rlimit limit{};
    ::getrlimit(static_cast<__rlimit_resource>(which), &limit);
    return limit;
}

bool IsSame(const rlimit& one, const rlimit& other)
{
    return one.rlim_cur == other.rlim_cur && one.rlim_max == other.rlim_max;
}

using All = std::array<rlimit, RLIMIT_NLIMITS>;

struct State {
    std::mutex mutex;
    std::optional<All> right;
};

State& Kept()
{
    static auto* const state = new State;  // never destroyed: threads open files until the end
    return *state;
}

// Puts one limit back. Returns what was done, and in `right` what is right from now on.
std::string PutBack(std::size_t which, const rlimit& now, rlimit& right)
{
    const bool isBack = ::setrlimit(static_cast<__rlimit_resource>(which), &right) == 0;
    std::string what = std::string("limit ") + names[which] + " was " + Text(now.rlim_cur) + " instead of " +
                       Text(right.rlim_cur) + (isBack ? ", put back" : ", cannot be put back");
    if (!isBack) {
        right = {std::min(right.rlim_cur, now.rlim_max), now.rlim_max};
        ::setrlimit(static_cast<__rlimit_resource>(which), &right);
    }
    return what;
}

}  // namespace

void Limits::Keep()
{
    State& kept = Kept();
    const std::lock_guard lock(kept.mutex);
    kept.right.emplace();
    for (std::size_t which = 0; which < kept.right->size(); ++which) {
        (*kept.right)[which] = Get(which);
    }
}

void Limits::Restore()
{
    State& kept = Kept();
    const std::lock_guard lock(kept.mutex);
    std::string found;
    for (std::size_t which = 0; kept.right && which < kept.right->size(); ++which) {
        rlimit& right = (*kept.right)[which];
        if (const rlimit now = Get(which); !IsSame(now, right)) {
            found += (found.empty() ? "" : "; ") + PutBack(which, now, right);
        }
    }
    if (!found.empty()) {
        Impairments::Report("limits tampered with", found);
    }
}

}  // namespace SDK
