// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Console.h"

#include <fcntl.h>
#include <unistd.h>

#include "host/sdk/LineStream.h"
#include "host/sdk/SafeText.h"

namespace Agent {

namespace {

bool showsProgress = false;

void Write(const std::string& text)
{
    constexpr std::chrono::milliseconds patience{200};
    SDK::StopDeadline deadline;
    deadline.Set(patience);
    std::error_code error;
    SDK::LineStream::Duplicate(STDERR_FILENO, error).Write(text, deadline);
}

}  // namespace

void Say(std::string_view text)
{
    Write("containerescape-agent: " + Line(text));
}

Progress::Progress()
{
    showsProgress = ::isatty(STDERR_FILENO) == 1;
}

Progress::~Progress()
{
    Show("");
    showsProgress = false;
}

// The line is erased (ESC [K), and the cursor stays at its begin: the next writer begins there.
void Progress::Show(std::string_view text)
{
    if (showsProgress) {
        Write(std::string{"\r\033[K"}.append(text).append("\r"));
    }
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
