// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Options.h"

#include <gmock/gmock.h>

#include "host/agent/Agent.h"
#include "support/TemporaryDirectory.h"

namespace {

TEST(OptionsTest, WhatAnOperatorGetsWrongIsRefusedBeforeTheStartByItsName)
{
    const TemporaryDirectory directory;
    const std::string nowhere = directory / "x/y";
    const std::string policy = CE_EXAMPLE_POLICY;
    const std::vector<std::pair<std::vector<std::string>, std::string>> rows{
        {{}, "no command"},
        {{"start"}, "start"},
        {{"run"}, "--policy is required"},
        {{"run", "--policy", "--alarms"}, "--policy: needs a value"},
        {{"run", "--policy", policy, "--alarms", ""}, "--alarms: needs a value"},
        {{"run", "--policy", policy, "--policy", policy}, "--policy: At Most 1"},
        {{"run", "--policy", policy, "--namespace-check", "--namespace-check"}, "--namespace-check: At Most 1"},
        {{"run", "--policy", policy, "--namespace-check=1"}, "namespace-check"},
        {{"run", "--policy", policy, "--log-level", "loud"}, "--log-level: loud"},
        {{"run", "--policy", policy, "--buffer-kb", "99999999999999999999"}, "--buffer-kb: Value 9"},
        {{"run", "--policy", policy, "--buffer-kb=2"}, "not in range 4"},
        {{"run", "--policy", policy, "--status-interval", "1 "}, "--status-interval: Value 1 "},
        {{"run", "--policy", directory / "none"}, "none: No such file"},
        {{"run", "--policy", policy, "--modules", nowhere}, "module " + nowhere + "/libreport_module.so"},
        {{"run", "--policy", policy, "--modules", CE_MODULES, "--alarms", nowhere}, "alarms file"},
        {{"run", "--policy", policy, "--modules", CE_MODULES, "--stats", nowhere}, "statistics file"},
    };
    for (const auto& [words, reason] : rows) {
        try {
            Agent::MakePlan(Agent::ParseOptions(words));
            ADD_FAILURE() << "accepted: " << testing::PrintToString(words);
        } catch (const Agent::BadInput& problem) {
            EXPECT_THAT(problem.what(), testing::HasSubstr(reason));
        }
    }
}

}  // namespace
