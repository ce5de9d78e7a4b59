// SPDX-License-Identifier: Apache-2.0
#include <unistd.h>

#include "host/report/LineStream.h"
#include "host/report/Sinks.h"
#include "host/sdk/Config.h"

namespace Engine {

namespace {

class StdoutSink : public AlarmSink {
public:
    StdoutSink() : stream(LineStream::Duplicate(STDOUT_FILENO, whyClosed)) {}

    std::string Name() const override { return "stdout"; }

    std::error_code Write(std::string_view line, WritePatience& patience) override
    {
        return whyClosed ? whyClosed : stream.Write(line, patience);
    }

private:
    std::error_code whyClosed;  // set when the agent was started with its standard output closed
    LineStream stream;
};

}  // namespace

std::unique_ptr<AlarmSink> MakeStdoutSink(const Poco::Util::AbstractConfiguration& settings)
{
    return settings.getRawString(SDK::Config::alarmsFile, "").empty() ? std::make_unique<StdoutSink>() : nullptr;
}

}  // namespace Engine
