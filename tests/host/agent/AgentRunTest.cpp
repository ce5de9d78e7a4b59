// SPDX-License-Identifier: Apache-2.0
// The agent from start to stop on the real kernel.
#include <gmock/gmock.h>

#include "host/agent/ChildAgent.h"
#include "host/agent/Console.h"
#include "host/agent/Machine.h"
#include "support/MustRun.h"
#include "support/TemporaryDirectory.h"

namespace {

using testing::HasSubstr;

class AgentRunTest : public testing::Test {
protected:
    void SetUp() override { CE_REQUIRE(Agent::WhyNotHere().empty(), Agent::WhyNotHere()); }

    void WritePolicy(const std::string& calls) const
    {
        directory.Write("policy", R"({"content": {"image_white_namelist": [], "container_escape_detect_task":
            {"highrisk_calls": [)" + calls +
                                      R"(], "host_directorys": []}}})");
    }

    std::vector<std::string> Words() const
    {
        return {"run", "--policy=" + directory / "policy", "--docker-socket=" + directory / "no-engine",
                "--alarms=" + directory / "alarms", "--stats=" + directory / "stats"};
    }

    TemporaryDirectory directory;
};

TEST_F(AgentRunTest, ReadsThePolicyAgainKeepsTheOldOneWhenTheNewIsBadAndStopsCleanly)
{
    WritePolicy(R"("mount", "nosuchcall", "bpf")");
    ChildAgent agent(Words());
    ASSERT_TRUE(agent.WaitFor("ready: watching 1 of 3 listed calls")) << agent.Log();
    EXPECT_THAT(agent.Log(), HasSubstr("call \"nosuchcall\": the kernel has no trace event"));
    EXPECT_THAT(agent.Log(), HasSubstr("call \"bpf\": the detection module does not know it"));

    directory.Write("policy", "{");
    agent.Signal(SIGHUP);
    ASSERT_TRUE(agent.WaitFor("refused, the running one stays: not JSON: line 1")) << agent.Log();
    WritePolicy(R"("mount", "setns")");
    agent.Signal(SIGHUP);
    ASSERT_TRUE(agent.WaitFor("policy replaced: watching 2 of 2 listed calls")) << agent.Log();

    agent.Signal(SIGTERM);
    EXPECT_EQ(agent.ExitCode(), Agent::cleanStop) << agent.Log();
    EXPECT_THAT(directory.Read("stats"), HasSubstr("\"trace.read\":"));
}

TEST_F(AgentRunTest, AStopDuringTheStartIsClean)
{
    WritePolicy("");
    ChildAgent agent(Words());
    ASSERT_TRUE(agent.WaitFor("no container engine at"));  // written before the first module is loaded
    agent.Signal(SIGINT);
    EXPECT_EQ(agent.ExitCode(), Agent::cleanStop) << agent.Log();
    EXPECT_THAT(agent.Log(), HasSubstr("stopped: events_read="));
}

}  // namespace
