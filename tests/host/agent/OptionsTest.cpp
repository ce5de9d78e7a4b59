// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Options.h"

#include <gmock/gmock.h>

#include "host/agent/Console.h"

namespace {

using Agent::BadInput;
using Agent::Options;
using Agent::ParseOptions;
using testing::HasSubstr;

using Words = std::vector<std::string>;

TEST(OptionsTest, BothFormsOfAValueAndEveryOptionAreTaken)
{
    const Options options =
        ParseOptions({"run", "--policy=p=1.json", "--alarms", "a", "--docker-socket", "/s", "--log-level", "debug",
                      "--modules=/m", "--namespace-check", "--buffer-kb", "64", "--stats", "s", "--status-interval=5"});
    EXPECT_EQ(options.policyFile, "p=1.json");
    EXPECT_EQ(options.alarmsFile, "a");
    EXPECT_EQ(options.dockerSocket, "/s");
    EXPECT_EQ(options.logLevel, "debug");
    EXPECT_EQ(options.modulesDir, "/m");
    EXPECT_TRUE(options.namespaceCheck);
    EXPECT_EQ(options.bufferKb, 64U);
    EXPECT_EQ(options.statsFile, "s");
    EXPECT_EQ(options.statusInterval, std::chrono::seconds{5});
}

TEST(OptionsTest, BadUsageIsRefusedWithItsReason)
{
    const std::vector<std::pair<Words, const char*>> rows{
        {{}, "no command"},
        {{"start"}, "unknown command \"start\""},
        {{"run"}, "--policy is required"},
        {{"run", "--policy"}, "--policy needs a value: FILE"},
        {{"run", "--policy", "--alarms"}, "--policy needs a value"},
        {{"run", "--policy="}, "--policy needs a value"},
        {{"run", "--policy", "a", "--policy", "b"}, "given twice"},
        {{"run", "--polic", "a"}, "unknown option \"--polic\""},
        {{"run", "a"}, "unknown option \"a\""},
        {{"run", "--policy", "a", "--namespace-check=1"}, "--namespace-check takes no value"},
        {{"run", "--policy", "a", "--log-level", "loud"}, "no level \"loud\""},
        {{"run", "--policy", "a", "--buffer-kb", "1e3"}, "from 4 to"},
        {{"run", "--policy", "a", "--buffer-kb", "-8"}, "from 4 to"},
        {{"run", "--policy", "a", "--buffer-kb", "99999999999999999999"}, "from 4 to"},
        {{"run", "--policy", "a", "--status-interval", "1 "}, "from 0 to 86400"},
    };
    for (const auto& [words, reason] : rows) {
        try {
            ParseOptions(words);
            ADD_FAILURE() << "accepted: " << testing::PrintToString(words);
        } catch (const BadInput& problem) {
            EXPECT_THAT(problem.what(), HasSubstr(reason));
        }
    }
}

}  // namespace
