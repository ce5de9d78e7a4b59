// SPDX-License-Identifier: Apache-2.0
#include "host/report/Sinks.h"

#include <unistd.h>

#include "host/sdk/Config.h"
#include "host/sdk/LineStream.h"

namespace Engine {

namespace {

// Alarms as lines: to the file `path`, or to standard output when it is empty.
class LineSink : public AlarmSink {
public:
    explicit LineSink(std::string path) : path(std::move(path)) {}

    std::string Name() const override { return path.empty() ? "stdout" : "file"; }

    std::error_code Write(std::string_view line, const StopDeadline& deadline) override
    {
        std::error_code error;
        if (!stream) {  // tried each time: what was in the way may have gone
            stream = path.empty() ? SDK::LineStream::Duplicate(STDOUT_FILENO, error)
                                  : SDK::LineStream::Append(path.c_str(), error);
        }
        return error ? error : stream.Write(line, deadline);
    }

private:
    std::string path;
    SDK::LineStream stream;
};

}  // namespace

std::vector<std::unique_ptr<AlarmSink>> MakeSinks(const Poco::Util::AbstractConfiguration& settings)
{
    std::vector<std::unique_ptr<AlarmSink>> sinks;
    sinks.push_back(std::make_unique<LineSink>(settings.getRawString(SDK::Config::alarmsFile, "")));
    return sinks;
}

}  // namespace Engine
