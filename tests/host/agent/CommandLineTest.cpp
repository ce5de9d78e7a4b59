// SPDX-License-Identifier: Apache-2.0
#include <gmock/gmock.h>

#include "host/agent/ChildAgent.h"
#include "host/agent/Console.h"
#include "support/TemporaryDirectory.h"

namespace {

TEST(CommandLineTest, BadInputEndsWithTwoBeforeAnythingStarts)
{
    const TemporaryDirectory directory;
    const std::string broken = directory.Write("broken", "{");
    const std::string nowhere = directory / "x/y";
    const std::vector<std::pair<std::vector<std::string>, std::string>> rows{
        {{"run", "--policy", broken, "--color"}, "unknown option \"--color\""},
        {{"run", "--policy", broken}, "broken: not JSON: line 1, column"},
        {{"run", "--policy", CE_EXAMPLE_POLICY, "--modules", nowhere}, "module " + nowhere + "/libreport_module.so"},
        {{"run", "--policy", CE_EXAMPLE_POLICY, "--alarms", nowhere}, "alarms file"},
        {{"run", "--policy", CE_EXAMPLE_POLICY, "--stats", nowhere}, "statistics file"},
    };
    for (const auto& [words, reason] : rows) {
        ChildAgent agent(words);
        EXPECT_EQ(agent.ExitCode(), Agent::badInput) << agent.Log();
        EXPECT_THAT(agent.Log(), testing::HasSubstr(reason));
    }
}

}  // namespace
