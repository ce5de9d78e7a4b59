// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Console.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "host/sdk/SafeText.h"

namespace Agent {

void Say(std::string_view text)
{
    constexpr int patienceMs = 200;
    std::string line = "containerescape-agent: ";
    SDK::SafeText::AppendEscaped(line, text);
    line += '\n';
    pollfd standardError{STDERR_FILENO, POLLOUT, 0};
    if (::poll(&standardError, 1, patienceMs) == 1) {
        [[maybe_unused]] const ssize_t written = ::write(STDERR_FILENO, line.data(), line.size());
    }
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
