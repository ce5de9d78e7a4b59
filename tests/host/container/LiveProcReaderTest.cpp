// SPDX-License-Identifier: Apache-2.0
#include "host/container/LiveProcReader.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

// The child inherits a name that would shift the fields for whoever counts from the line's start.
TEST(LiveProcReaderTest, StartIsOnTheTracesClockWhateverTheNameHolds)
{
    ::prctl(PR_SET_NAME, "a) S 1 (2 3");
    const auto before = std::chrono::steady_clock::now().time_since_epoch();
    const pid_t child = ::fork();
    if (child == 0) {
        ::pause();
    }
    const auto after = std::chrono::steady_clock::now().time_since_epoch();
    Engine::LiveProcReader reader;
    const auto start = reader.StartOf(child);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    ASSERT_TRUE(start.has_value());
    EXPECT_GE(*start, before - std::chrono::milliseconds{20});
    EXPECT_LE(*start, after);
    EXPECT_FALSE(reader.StartOf(child).has_value());
}

}  // namespace
