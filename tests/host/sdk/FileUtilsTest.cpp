// SPDX-License-Identifier: Apache-2.0
#include "sdk/FileUtils.h"

#include <gtest/gtest.h>

#include <cerrno>

#include "host/sdk/TempDirectory.h"

namespace {

using SDK::FileUtils;

TEST(FileUtilsTest, ReadsFilesOfAnySizeUpToTheLimit)
{
    const TempDirectory directory;
    for (const std::size_t size : {0U, 1U, 4095U, 4096U, 4097U, 100000U}) {
        std::string written(size, 'x');
        if (size > 0) {
            written.back() = '\0';
        }
        directory.Write("file", written);
        std::string content = "before";
        EXPECT_EQ(FileUtils::ReadFile(directory / "file", content, 1 << 20), 0);
        EXPECT_EQ(content, written);
        EXPECT_EQ(FileUtils::ReadFile(directory / "file", content, 4096), 0);
        EXPECT_EQ(content, written.substr(0, 4096));
    }
}

TEST(FileUtilsTest, ReadsWhatTheKernelCallsEmpty)
{
    std::string content;
    EXPECT_EQ(FileUtils::ReadFile("/proc/self/status", content, 1 << 20), 0);
    EXPECT_NE(content.find("\nPPid:"), std::string::npos);
}

TEST(FileUtilsTest, TellsWhyItCouldNotRead)
{
    const TempDirectory directory;
    const auto errnoOf = [](const std::string& path, long limit) {
        std::string content = "before";
        EXPECT_EQ(FileUtils::ReadFile(path, content, limit), -1);
        const int why = errno;
        EXPECT_EQ(content, "");
        return why;
    };
    EXPECT_EQ(errnoOf(directory / "absent", 10), ENOENT);
    EXPECT_EQ(errnoOf(directory.Path(), 10), EISDIR);
    EXPECT_EQ(errnoOf("/proc/self/status", -1), EINVAL);
}

}  // namespace
