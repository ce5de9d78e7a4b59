// SPDX-License-Identifier: Apache-2.0
// The command "tune": what alarmed how often, by a file of alarms, and the exceptions that would silence it.
#pragma once

#include <iosfwd>
#include <string>

#include "host/agent/ExceptionRules.h"

namespace Agent {

// `alarms`: lines as --alarm-format plain and envelope write them. They may be anything else: each longer than
// maxAlarmBytes, and each that is no alarm, is named by its number. `rules`: the exceptions that there are. At most
// maxKinds kinds are told apart.
inline constexpr std::size_t maxAlarmBytes = 1U << 20U;
inline constexpr std::size_t maxKinds = 1000;
std::string Tune(std::istream& alarms, const ExceptionRules& rules);

// The same of a file. Throws BadInput when it cannot be read.
std::string Tune(const std::string& path, const ExceptionRules& rules);

}  // namespace Agent
