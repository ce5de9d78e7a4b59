// SPDX-License-Identifier: Apache-2.0
#include "sdk/FileUtils.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <tuple>
#include <vector>

#include "host/sdk/TempDirectory.h"

namespace {

using SDK::FileUtils;

TEST(FileUtilsTest, ReadsFilesOfAnySizeUpToTheLimit)
{
    const TempDirectory directory;
    for (const std::size_t size : {0U, 1U, 4095U, 4096U, 4097U, 100000U}) {
        const std::string written(size, '\0');
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
    const std::vector<std::tuple<std::string, long, int>> rows{
        {directory / "absent", 10, ENOENT}, {directory.Path(), 10, EISDIR}, {"/proc/self/status", -1, EINVAL}};
    for (const auto& [path, limit, why] : rows) {
        std::string content = "before";
        errno = 0;
        EXPECT_EQ(FileUtils::ReadFile(path, content, limit), -1);
        EXPECT_EQ(errno, why) << path;
        EXPECT_EQ(content, "");
    }
}

}  // namespace
