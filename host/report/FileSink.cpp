// SPDX-License-Identifier: Apache-2.0
#include "host/report/LineStream.h"
#include "host/report/Sinks.h"
#include "host/sdk/Config.h"

namespace Engine {

namespace {

class FileSink : public AlarmSink {
public:
    explicit FileSink(std::string path) : path(std::move(path)) {}

    std::string Name() const override { return "file"; }

    std::error_code Write(std::string_view line, WritePatience& patience) override
    {
        std::error_code error;
        if (!stream) {
            stream = LineStream::Append(path.c_str(), error);  // each time anew: what was in the way may have gone
        }
        return error ? error : stream.Write(line, patience);
    }

private:
    std::string path;
    LineStream stream;
};

}  // namespace

std::unique_ptr<AlarmSink> MakeFileSink(const Poco::Util::AbstractConfiguration& settings)
{
    const std::string path = settings.getRawString(SDK::Config::alarmsFile, "");
    return path.empty() ? nullptr : std::make_unique<FileSink>(path);
}

}  // namespace Engine
