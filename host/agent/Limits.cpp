// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Limits.h"

#include <algorithm>

namespace Agent {

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

}  // namespace

Limits::Limits()
{
    for (std::size_t which = 0; which < right.size(); ++which) {
        right[which] = Get(which);
    }
}

std::vector<std::string> Limits::Restore()
{
    std::vector<std::string> found;
    for (std::size_t which = 0; which < right.size(); ++which) {
        const rlimit now = Get(which);
        if (IsSame(now, right[which])) {
            continue;
        }
        const bool isBack = ::setrlimit(static_cast<__rlimit_resource>(which), &right[which]) == 0;
        found.push_back(std::string("limit ") + names[which] + " was " + Text(now.rlim_cur) + " instead of " +
                        Text(right[which].rlim_cur) + (isBack ? ", put back" : ", cannot be put back"));
        if (!isBack) {
            rlimit highest{std::min(right[which].rlim_cur, now.rlim_max), now.rlim_max};
            ::setrlimit(static_cast<__rlimit_resource>(which), &highest);
            right[which] = highest;
        }
    }
    return found;
}

}  // namespace Agent
