// SPDX-License-Identifier: Apache-2.0
// containerescape-agent: watches the processes in this host's containers and reports attempts to break out.
#include <cstdio>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "host/agent/Agent.h"
#include "host/agent/Check.h"
#include "host/agent/Machine.h"
#include "host/agent/PolicyText.h"
#include "host/agent/SelfTest.h"
#include "host/agent/Status.h"
#include "host/agent/Tune.h"

namespace Agent {

namespace {

ExitCode Print(const std::string& text)
{
    const bool isOut = std::fputs(text.c_str(), stdout) >= 0 && std::fflush(stdout) == 0;
    return isOut ? cleanStop : failed;
}

ExitCode Main(const std::vector<std::string>& words)
{
    const Options options = ParseOptions(words);
    if (!options.answer.empty()) {
        return Print(options.answer);
    }
    switch (options.command) {
        case Command::Check:
            return Check(options);
        case Command::SelfTest:
            return SelfTest(options);
        case Command::Attack:
            return Attack(options.attackedDirectory);
        case Command::Explain:
            return Print(Explain(LoadPolicy(options.policyFile)));
        case Command::ShowConfiguration:
            return Print(ShowValues(options));
        case Command::Status:
            return Status(options);
        case Command::Tune:
            return Print(Tune(options.inspectedAlarms, options.exceptions));
        case Command::Run:
            break;
    }
    StartPlan plan = MakePlan(options);
    if (const std::string reason = WhyNotHere(); !reason.empty()) {
        Say(reason);
        return cannotRunHere;
    }
    return HostAgent(std::move(plan)).Run();
}

}  // namespace

}  // namespace Agent

int main(int argc, char** argv)
{
    Agent::OpenMissingStandardDescriptors();
    try {
        return Agent::Main({argv + (argc > 0 ? 1 : 0), argv + argc});
    } catch (const Agent::BadInput& problem) {
        Agent::Say(std::string(problem.what()) + " (see --help)");
        return Agent::badInput;
    } catch (const std::exception& problem) {
        Agent::Say(std::string("failed: ") + problem.what());
        return Agent::failed;
    }
}
