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

// On a terminal, and only there, a line on standard error that says what is being done, until it is destroyed. Each
// text takes the place of the one before; whatever else is written there meanwhile, too. Thread: the main thread.
class Progress {
public:
    Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    ~Progress();

    // Without effect while there is none.
    static void Show(std::string_view text);
};

// Opens /dev/null for each standard descriptor that the program was started without, so that no file that it opens
// later takes the place and gets alarms or log lines. Writing to such a standard output fails and is counted.
void OpenMissingStandardDescriptors();

}  // namespace Agent
