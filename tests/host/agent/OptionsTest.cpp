// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Options.h"

#include <gmock/gmock.h>

#include "host/agent/Console.h"

namespace {

TEST(OptionsTest, BadUsageIsRefusedWithItsReason)
{
    const std::vector<std::pair<std::vector<std::string>, const char*>> rows{
        {{}, "no command"},
        {{"start"}, "unknown command \"start\""},
        {{"run"}, "--policy is required"},
        {{"run", "--policy", "--alarms"}, "--policy needs a value"},
        {{"run", "--policy", "a", "--policy", "b"}, "given twice"},
        {{"run", "--policy", "a", "--namespace-check=1"}, "--namespace-check takes no value"},
        {{"run", "--policy", "a", "--log-level", "loud"}, "no level \"loud\""},
        {{"run", "--policy", "a", "--buffer-kb", "1e3"}, "from 4 to"},
        {{"run", "--policy", "a", "--buffer-kb", "99999999999999999999"}, "from 4 to"},
        {{"run", "--policy", "a", "--status-interval", "1 "}, "from 0 to 86400"},
    };
    for (const auto& [words, reason] : rows) {
        try {
            Agent::ParseOptions(words);
            ADD_FAILURE() << "accepted: " << testing::PrintToString(words);
        } catch (const Agent::BadInput& problem) {
            EXPECT_THAT(problem.what(), testing::HasSubstr(reason));
        }
    }
}

}  // namespace
