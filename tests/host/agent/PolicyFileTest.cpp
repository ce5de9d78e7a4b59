// SPDX-License-Identifier: Apache-2.0
#include "host/agent/PolicyFile.h"

#include <gmock/gmock.h>

#include "host/agent/Console.h"
#include "support/TemporaryDirectory.h"

namespace {

using namespace Agent;
using testing::HasSubstr;
using testing::UnorderedElementsAre;

template <class Action>
std::string WhyRefused(Action action)
{
    try {
        action();
    } catch (const BadInput& problem) {
        return problem.what();
    }
    return "accepted";
}

TEST(PolicyFileTest, ABadDocumentIsRefusedWithPlaceAndReason)
{
    const std::string start = R"({"content": {"image_white_namelist": [], "container_escape_detect_task": {)";
    const std::vector<std::pair<std::string, std::string>> rows{
        {"{\n  \"content\": {,\n}", "line 2, column"},
        {std::string("{\"content\"\0: {}}", 16), "not JSON"},
        {"[]", "the document: must be an object, is a list"},
        {R"({"content": null})", "content: must be an object, is null"},
        {R"({"content": {"image_white_namelist": 7}})", "content.container_escape_detect_task: is missing"},
        {start + R"("highrisk_calls": ["a", "b", 4]}}})", "highrisk_calls[2]: must be a text, is a number"},
        {start + R"("highrisk_calls": [], "host_directorys": {}}}})", "host_directorys: must be a list, is an object"},
    };
    for (const auto& [text, reason] : rows) {
        EXPECT_THAT(WhyRefused([&text = text] { ParsePolicy(text); }), HasSubstr(reason)) << text;
    }
}

TEST(PolicyFileTest, OnlyARegularReadableFileOfBoundedSizeIsRead)
{
    const TemporaryDirectory directory;
    EXPECT_THAT(WhyRefused([&] { ReadPolicyFile(directory.Path()); }), HasSubstr("not a regular file"));
    const std::string large = directory.Write("large", std::string(maxPolicyBytes + 1, ' '));
    EXPECT_THAT(WhyRefused([&] { ReadPolicyFile(large); }), HasSubstr("larger than 1048576 bytes"));
    const std::string full = directory.Write("full", std::string(maxPolicyBytes, ' '));
    EXPECT_EQ(ReadPolicyFile(full).size(), maxPolicyBytes);
}

TEST(PolicyFileTest, EveryEntryIsWatchedOrNamedWithItsReason)
{
    const TemporaryDirectory directory;
    directory.Write("sys_enter_mount", "");
    directory.Write("sys_enter_bpf", "");
    directory.Write("outside", "");
    const std::string& good = directory.Path();
    Policy policy = ParsePolicy(R"({"version": 1, "content": {"image_white_namelist": ["i"], "other": 2,
        "container_escape_detect_task": {"highrisk_calls": ["mount", "mount", "umount2", "bpf", "none", "/../outside"],
        "host_directorys": [], "x": 3}}})");
    policy.directories = {
        good, good + "*/*rwxa", good + "*/*rrrr", good + "*/*", good + "*/*rwxar", good + "*/*q", good + "/none*/*r",
        ""};
    const PolicyCoverage coverage =
        Examine(policy, {"syscalls:sys_enter_mount", "syscalls:sys_enter_umount2", "sched:sched_switch"}, good);
    EXPECT_EQ(coverage.calls, 2U);
    EXPECT_EQ(coverage.directories, 3U);
    EXPECT_THAT(coverage.warnings,
                UnorderedElementsAre(
                    HasSubstr("key version"), HasSubstr("key content.other"),
                    HasSubstr("key content.container_escape_detect_task.x"), HasSubstr("\"bpf\": the detection module"),
                    HasSubstr("\"none\": the kernel"), HasSubstr("\"/../outside\": the kernel"), HasSubstr("*/*\""),
                    HasSubstr("*/*rwxar\""), HasSubstr("*/*q\""), HasSubstr("No such file"), HasSubstr("\"\"")));
}

}  // namespace
