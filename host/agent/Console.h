// SPDX-License-Identifier: Apache-2.0
// What the program itself tells its operator on standard error, whatever the log level is. Also what ends it early.
#pragma once

#include <stdexcept>
#include <string>
#include <string_view>

namespace Agent {

// Exit codes; operators and service files rely on them.
enum ExitCode : int {
    cleanStop = 0,
    failed = 1,         // something broke while running
    badInput = 2,       // command line, policy or a file they name
    cannotRunHere = 77  // this machine does not have what the agent needs
};

// Bad usage or bad input. The text is for the operator: it names what is wrong and where.
class BadInput : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Writes one line, "containerescape-agent: <text>". Control characters in it are escaped. Gives up when standard error
// takes nothing for a moment: a blocked terminal must not hold the agent up. Any thread.
void Say(std::string_view text);

// `text` as one line, with its end: what another chose in it cannot break it or change the terminal.
std::string Line(std::string_view text);

// Opens /dev/null for each standard descriptor that the program was started without, so that no file that it opens
// later takes the place and gets alarms or log lines. Writing to such a standard output fails and is counted.
void OpenMissingStandardDescriptors();

}  // namespace Agent
