// SPDX-License-Identifier: Apache-2.0
// A process that the system under test takes for a container's: it knows which container before the process does
// anything.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <fstream>
#include <string>

#include "tests/support/FakeSystem.h"

namespace Support {

// Forks, runs `action` in the child and waits for its end, by which time the kernel has queued all its notifications.
// Returns whether `action` returned true. With other threads about, `action` may make system calls only.
template <class Action>
bool RunInContainer(FakeSystem& system, const Action& action)
{
    std::array<int, 2> gate{};
    if (pipe(gate.data()) != 0) {
        return false;
    }
    const pid_t child = fork();
    char go = 0;
    if (child == 0) {
        close(gate[1]);
        const bool done = read(gate[0], &go, 1) == 1 && action();
        _exit(done ? 0 : 1);
    }
    system.PutInContainer(child, "0123456789ab");
    int status = -1;
    const bool ran = child > 0 && write(gate[1], &go, 1) == 1 && waitpid(child, &status, 0) == child;
    close(gate[0]);
    close(gate[1]);
    return ran && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

inline bool WriteFile(const std::string& path)
{
    std::ofstream file{path};
    file << "text\n";
    file.close();
    return file.good();
}

}  // namespace Support
