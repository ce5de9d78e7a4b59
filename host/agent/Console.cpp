// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Console.h"

#include <fcntl.h>
#include <unistd.h>

#include "host/sdk/LineStream.h"
#include "host/sdk/SafeText.h"

namespace Agent {

void Say(std::string_view text)
{
    constexpr std::chrono::milliseconds patience{200};
    const std::string line = "containerescape-agent: " + Line(text);
    SDK::StopDeadline deadline;
    deadline.Set(patience);
    std::error_code error;
    SDK::LineStream::Duplicate(STDERR_FILENO, error).Write(line, deadline);
}

std::string Line(std::string_view text)
{
    std::string line;
    SDK::SafeText::AppendEscaped(line, text);
    return line += '\n';
}

void OpenMissingStandardDescriptors()
{
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (::fcntl(fd, F_GETFD) < 0) {
            // The lowest free descriptor is what open(2) gives: `fd`, as those below it are open by now.
            [[maybe_unused]] const int opened = ::open("/dev/null", fd == STDERR_FILENO ? O_WRONLY : O_RDONLY);
        }
    }
}

}  // namespace Agent
