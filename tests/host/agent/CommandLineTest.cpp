// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "host/agent/ChildAgent.h"
#include "host/agent/Console.h"
#include "support/MustRun.h"
#include "support/TemporaryDirectory.h"

namespace {

using testing::HasSubstr;

TEST(CommandLineTest, BadInputEndsWithTwoBeforeAnythingStarts)
{
    const TemporaryDirectory directory;
    const std::string broken = directory.Write("broken", "{\n\"content\": }");
    struct Row {
        std::vector<std::string> words;
        int code;
        std::string text;
    };
    const std::vector<Row> rows{
        {{"--help"}, Agent::cleanStop, ""},
        {{"run", "--version"}, Agent::cleanStop, ""},
        {{"run", "--policy", broken, "--color"}, Agent::badInput, "unknown option \"--color\""},
        {{"run", "--policy", directory / "none"}, Agent::badInput, "policy " + directory / "none: No such file"},
        {{"run", "--policy", broken}, Agent::badInput, "broken: not JSON: line 2, column"},
        {{"run", "--policy", CE_EXAMPLE_POLICY, "--modules", directory / "x"},
         Agent::badInput,
         "module " + directory / "x/libreport_module.so"},
        {{"run", "--policy", CE_EXAMPLE_POLICY, "--alarms", directory / "x/alarms"}, Agent::badInput, "alarms file"},
        {{"run", "--policy", CE_EXAMPLE_POLICY, "--stats", directory / "x/stats"}, Agent::badInput, "statistics file"},
    };
    for (const Row& row : rows) {
        ChildAgent agent(row.words);
        EXPECT_EQ(agent.ExitCode(), row.code) << agent.Log();
        EXPECT_THAT(agent.Log(), HasSubstr(row.text));
    }
}

TEST(CommandLineTest, WithoutRootItSaysWhatToDoAndEndsWith77)
{
    constexpr uid_t nobody = 65534;
    CE_REQUIRE(::geteuid() == 0, "needs root to run the agent as somebody else");
    ChildAgent agent({"run", "--policy", CE_EXAMPLE_POLICY}, nobody);
    const int code = agent.ExitCode();
    CE_REQUIRE(code != ChildAgent::noProgram, "the build directory is closed to other users");
    EXPECT_EQ(code, Agent::cannotRunHere);
    EXPECT_EQ(agent.Log(), "containerescape-agent: must run as root: start it with sudo or as a system service\n");
}

}  // namespace
