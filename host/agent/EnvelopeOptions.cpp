// SPDX-License-Identifier: Apache-2.0
#include "host/agent/EnvelopeOptions.h"

#include "host/agent/ListOption.h"
#include "host/agent/Options.h"
#include "host/sdk/Redaction.h"

namespace Agent {

void AddEnvelopeOptions(CLI::App& command, Options& options)
{
    AddList(command, "--redact", options.redactions, "REGEX",
            "Hide in envelopes what matches in a command line, or what the expression's first group matches, as in "
            "--password[= ](\\S+), in RE2's syntax; as often as needed",
            [](const std::string& text) {
                const std::string problem = SDK::Redaction::WhyNot(text);
                return problem.empty() ? "" : text + ": is no regular expression: " + problem;
            });
    AddList(command, "--host-label", options.hostLabels, "KEY=VALUE",
            "A label of this host, for envelopes; as often as needed", [](const std::string& text) {
                const std::size_t end = text.find('=');
                return end != std::string::npos && end != 0 ? "" : text + ": is not KEY=VALUE";
            });
}

}  // namespace Agent
