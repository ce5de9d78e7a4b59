// SPDX-License-Identifier: Apache-2.0
// The agent's counters for people and for programs: status lines and the statistics file.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <system_error>

namespace Agent {

using CounterValues = std::map<std::string, std::uint64_t>;  // as SDK::Counters::Snapshot gives them

// "events_read=10 lost_kernel=0 shed_kernel=0 shed=0 lost_queues=0 notify_overflows=0 not_container=8 alarms_sent=1
// alarms_lost=0 demoted=0 excepted=0" on one line: the keys and their order are stable, new ones come last. Events and
// file notifications together; all but notify_overflows, which are losses of unknown size, and demoted (sched.demoted)
// are numbers of events.
std::string StatusLine(const CounterValues& counters);

// Replaces `path` by all counters as one JSON object, in one step: a reader sees the old file or the new one.
std::error_code WriteStatistics(const std::string& path, const CounterValues& counters);

}  // namespace Agent
