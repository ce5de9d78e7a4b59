// SPDX-License-Identifier: Apache-2.0
#include "host/report/Sinks.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "host/report/ReportLog.h"
#include "host/sdk/Config.h"
#include "host/sdk/LineStream.h"

namespace Engine {

namespace {

class OutputSink : public AlarmSink {
public:
    std::string Name() const override { return "stdout"; }

    std::error_code Write(std::string_view line, const StopDeadline& deadline) override
    {
        std::error_code error;
        if (!stream) {  // tried each time: what was in the way may have gone
            stream = SDK::LineStream::Duplicate(STDOUT_FILENO, error);
        }
        return error ? error : stream.Write(line, deadline);
    }

private:
    SDK::LineStream stream;
};

// Looks before each line whether the file is still at its path: what a program that rotates logs has renamed, or
// another deleted, gets no line more.
class FileSink : public AlarmSink {
public:
    FileSink(std::string path, std::size_t maxBytes, unsigned int kept)
        : path(std::move(path)), maxBytes(maxBytes), kept(kept)
    {
    }

    std::string Name() const override { return "file"; }

    std::error_code Write(std::string_view line, const StopDeadline& deadline) override
    {
        std::error_code error;
        if (!stream || stream.HasLeft(path.c_str())) {
            stream = SDK::LineStream::Append(path.c_str(), error);
        }
        error = error ? error : stream.Write(line, deadline);
        if (!error && maxBytes != 0 && stream.FileSize() >= maxBytes) {
            Rotate();
        }
        return error;
    }

private:
    // The next line opens a new file. One that cannot be renamed goes on to grow.
    void Rotate()
    {
        const auto numbered = [this](unsigned int number) {
            return path + '.' + std::to_string(number);
        };
        for (unsigned int number = kept; number > 1; --number) {
            ::rename(numbered(number - 1).c_str(), numbered(number).c_str());  // there may be fewer
        }
        if (::rename(path.c_str(), numbered(1).c_str()) != 0) {
            ReportLog::Warning("%s is full and cannot be renamed: %s", path, std::string(std::strerror(errno)));
        }
    }

    std::string path;
    std::size_t maxBytes;  // 0: it grows
    unsigned int kept;
    SDK::LineStream stream;
};

}  // namespace

std::vector<std::unique_ptr<AlarmSink>> MakeSinks(const Poco::Util::AbstractConfiguration& settings)
{
    std::vector<std::unique_ptr<AlarmSink>> sinks;
    const std::string file = settings.getRawString(SDK::Config::alarmsFile, "");
    if (file.empty()) {
        sinks.push_back(std::make_unique<OutputSink>());
    } else {
        sinks.push_back(std::make_unique<FileSink>(file, settings.getUInt64(SDK::Config::alarmsMaxBytes, 0),
                                                   settings.getUInt(SDK::Config::alarmsKept, 1)));
    }
    return sinks;
}

}  // namespace Engine
