// SPDX-License-Identifier: Apache-2.0
// Where alarms go: standard output, a file, and whatever is added beside them.
#pragma once

#include <string>
#include <string_view>
#include <system_error>

#include "host/report/WritePatience.h"

namespace Engine {

// Thread: one sink's calls all come from the one thread of its SinkQueue, so a sink may block there: that delays nobody
// else. It must give up when its patience is over, or the agent cannot stop.
class AlarmSink {
public:
    AlarmSink() = default;
    AlarmSink(const AlarmSink&) = delete;
    AlarmSink& operator=(const AlarmSink&) = delete;
    virtual ~AlarmSink() = default;

    // A short word that names the sink in the log and in its counter "alarms.lost_<name>".
    virtual std::string Name() const = 0;

    // `line`: one JSON document in printable ASCII and the newline that ends it. An error means that the line is lost;
    // the next call may succeed again.
    virtual std::error_code Write(std::string_view line, WritePatience& patience) = 0;
};

}  // namespace Engine
