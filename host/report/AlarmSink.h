// SPDX-License-Identifier: Apache-2.0
// Where alarms go: standard output, a file, and whatever is added beside them.
#pragma once

#include <string>
#include <string_view>
#include <system_error>

#include "host/sdk/StopDeadline.h"

namespace Engine {

using SDK::StopDeadline;

// Thread: all calls of one sink come from the one thread of its SinkQueue, so a sink may block there: that delays no
// other sink. It must give up when the deadline has passed, or the agent cannot stop.
class AlarmSink {
public:
    AlarmSink() = default;
    AlarmSink(const AlarmSink&) = delete;
    AlarmSink& operator=(const AlarmSink&) = delete;
    virtual ~AlarmSink() = default;

    // A short word that names the sink in the log and in its counter "alarms.lost_<name>".
    virtual std::string Name() const = 0;

    // `line`: one JSON document in printable ASCII and the newline that ends it. After an error the same line comes
    // again, unless the agent stops. std::errc::timed_out: the deadline has passed.
    virtual std::error_code Write(std::string_view line, const StopDeadline& deadline) = 0;
};

}  // namespace Engine
