// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <Poco/Util/AbstractConfiguration.h>

#include <memory>
#include <vector>

#include "host/report/AlarmSink.h"

namespace Engine {

// The sinks that the settings (host/sdk/Config.h) ask for, at least one: the file of the setting "alarms.file", which
// is appended to, or else standard output.
std::vector<std::unique_ptr<AlarmSink>> MakeSinks(const Poco::Util::AbstractConfiguration& settings);

}  // namespace Engine
