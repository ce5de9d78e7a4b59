// SPDX-License-Identifier: Apache-2.0
// The sinks that there are. A further one is a source file with its maker, declared here, and one line in Sinks.cpp.
#pragma once

#include <Poco/Util/AbstractConfiguration.h>

#include <memory>
#include <vector>

#include "host/report/AlarmSink.h"

namespace Engine {

// A maker returns null when the settings (host/sdk/Config.h) do not ask for its sink.
// Standard output, unless alarms go to a file.
std::unique_ptr<AlarmSink> MakeStdoutSink(const Poco::Util::AbstractConfiguration& settings);
// The file of the setting "alarms.file", appended to.
std::unique_ptr<AlarmSink> MakeFileSink(const Poco::Util::AbstractConfiguration& settings);

// All sinks that the settings ask for.
std::vector<std::unique_ptr<AlarmSink>> MakeSinks(const Poco::Util::AbstractConfiguration& settings);

}  // namespace Engine
