// SPDX-License-Identifier: Apache-2.0
#include "host/report/Sinks.h"

#include <array>

namespace Engine {

namespace {

using Maker = std::unique_ptr<AlarmSink> (*)(const Poco::Util::AbstractConfiguration&);

constexpr std::array<Maker, 2> makers{{
    MakeStdoutSink,
    MakeFileSink,
}};

}  // namespace

std::vector<std::unique_ptr<AlarmSink>> MakeSinks(const Poco::Util::AbstractConfiguration& settings)
{
    std::vector<std::unique_ptr<AlarmSink>> sinks;
    for (const Maker make : makers) {
        if (std::unique_ptr<AlarmSink> sink = make(settings)) {
            sinks.push_back(std::move(sink));
        }
    }
    return sinks;
}

}  // namespace Engine
