// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <string>
#include <vector>

#include "host/sdk/FileDescriptor.h"

// The built agent as a child process. Its standard error comes through a pipe; its standard output goes to /dev/null.
class ChildAgent {
public:
    explicit ChildAgent(std::vector<std::string> words)
    {
        std::array<int, 2> ends{};
        EXPECT_EQ(::pipe2(ends.data(), O_CLOEXEC), 0);
        log.Reset(ends[0]);
        const SDK::FileDescriptor writer(ends[1]);
        words.insert(words.begin(), CE_AGENT);
        std::vector<char*> arguments;
        for (std::string& word : words) {
            arguments.push_back(word.data());
        }
        arguments.push_back(nullptr);
        pid = ::fork();
        if (pid == 0) {
            ::dup2(::open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
            ::dup2(writer.Get(), STDERR_FILENO);
            ::execv(CE_AGENT, arguments.data());
            ::_exit(126);
        }
    }
    ChildAgent(const ChildAgent&) = delete;
    ChildAgent& operator=(const ChildAgent&) = delete;
    ~ChildAgent()
    {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
    }

    void Signal(int number) const { ::kill(pid, number); }

    // Reads the log until it holds `text`. False when it ended, or a minute passed, without.
    bool WaitFor(const std::string& text)
    {
        while (seen.find(text) == std::string::npos && ReadMore()) {
        }
        return seen.find(text) != std::string::npos;
    }

    // Waits for the end; the exit code, or -1 when a signal ended it. Log() is complete afterwards.
    int ExitCode()
    {
        while (ReadMore()) {
        }
        int status = 0;
        ::waitpid(pid, &status, 0);
        pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    const std::string& Log() const { return seen; }

private:
    bool ReadMore()
    {
        constexpr int farTooLongMs = 60'000;
        pollfd watched{log.Get(), POLLIN, 0};
        std::array<char, 4096> piece{};
        const ssize_t got = ::poll(&watched, 1, farTooLongMs) == 1 ? ::read(log.Get(), piece.data(), piece.size()) : 0;
        seen.append(piece.data(), got > 0 ? static_cast<std::size_t>(got) : 0);
        return got > 0;
    }

    SDK::FileDescriptor log;
    pid_t pid = -1;
    std::string seen;
};
