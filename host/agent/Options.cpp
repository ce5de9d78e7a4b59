// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Options.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <set>
#include <string_view>

#include "host/agent/Console.h"
#include "sdk/StrUtils.h"

namespace Agent {

namespace {

constexpr std::array<std::string_view, 9> logLevels{"none",   "fatal",       "critical", "error", "warning",
                                                    "notice", "information", "debug",    "trace"};
constexpr unsigned int maxBufferKb = 1U << 20U;     // a GiB for each CPU
constexpr unsigned int maxIntervalSeconds = 86400;  // a day

struct Option {
    const char* name;
    const char* value;  // its name in the help text; null: the option takes none
    const char* help;
    void (*apply)(Options& options, const std::string& value);  // throws BadInput with the reason alone
};

unsigned int ParseNumber(const std::string& text, unsigned int least, unsigned int most)
{
    unsigned int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size() || number < least || number > most) {
        throw BadInput(SDK::StrUtils::Format("must be a number from %u to %u, not \"%s\"", least, most, text.c_str()));
    }
    return number;
}

std::string ParseSource(const std::string& text)
{
    if (text != "auto" && text != "bpf" && text != "tracefs") {
        throw BadInput("must be auto, bpf or tracefs, not \"" + text + "\"");
    }
    return text;
}

std::string ParseLevel(const std::string& text)
{
    if (std::find(logLevels.begin(), logLevels.end(), text) == logLevels.end()) {
        throw BadInput("has no level \"" + text + "\"");
    }
    return text;
}

constexpr std::array<Option, 10> optionList{{
    {"--policy", "FILE", "the policy: image whitelist, high-risk calls, host directories (required)",
     [](Options& options, const std::string& value) {
         options.policyFile = value;
     }},
    {"--alarms", "FILE", "append alarms to FILE instead of writing them to standard output",
     [](Options& options, const std::string& value) {
         options.alarmsFile = value;
     }},
    {"--docker-socket", "PATH", "the container engine's socket (/var/run/docker.sock)",
     [](Options& options, const std::string& value) {
         options.dockerSocket = value;
     }},
    {"--log-level", "LEVEL", "none, fatal, critical, error, warning, notice (the default), information, debug or trace",
     [](Options& options, const std::string& value) {
         options.logLevel = ParseLevel(value);
     }},
    {"--modules", "DIR", "where the modules are, if not where they were installed",
     [](Options& options, const std::string& value) {
         options.modulesDir = value;
     }},
    {"--namespace-check", nullptr, "compare the namespaces of container processes regularly",
     [](Options& options, const std::string&) {
         options.namespaceCheck = true;
     }},
    {"--buffer-kb", "N", "size of the kernel's buffers for each CPU, in KiB",
     [](Options& options, const std::string& value) {
         options.bufferKb = ParseNumber(value, 4, maxBufferKb);
     }},
    {"--syscalls", "SOURCE",
     "where system calls come from: bpf, tracefs, or auto (the default): bpf where it can be had",
     [](Options& options, const std::string& value) {
         options.syscallSource = ParseSource(value);
     }},
    {"--stats", "FILE", "write all counters to FILE as JSON, at every status line and at the stop",
     [](Options& options, const std::string& value) {
         options.statsFile = value;
     }},
    {"--status-interval", "N", "write a status line to standard error every N seconds (0: none, the default)",
     [](Options& options, const std::string& value) {
         options.statusInterval = std::chrono::seconds{ParseNumber(value, 0, maxIntervalSeconds)};
     }},
}};

const Option& Find(const std::string& name)
{
    const auto* const found = std::find_if(optionList.begin(), optionList.end(),
                                           [&name](const Option& option) { return name == option.name; });
    if (found == optionList.end()) {
        throw BadInput("unknown option \"" + name + "\"");
    }
    return *found;
}

// "--option value" and "--option=value" are the same.
class Words {
public:
    explicit Words(const std::vector<std::string>& words) : words(words) {}

    bool AtEnd() const { return next == words.size(); }

    void TakeOption(Options& options)
    {
        const std::string& word = words[next++];
        const std::size_t equals = word.starts_with("--") ? word.find('=') : std::string::npos;
        const Option& option = Find(word.substr(0, equals));
        const std::string name = option.name;
        if (!seen.insert(name).second) {
            throw BadInput("option " + name + " is given twice");
        }
        try {
            option.apply(options, Value(option, word, equals));
        } catch (const BadInput& problem) {
            throw BadInput("option " + name + " " + problem.what());
        }
    }

private:
    std::string Value(const Option& option, const std::string& word, std::size_t equals)
    {
        const bool isAttached = equals != std::string::npos;
        if (option.value == nullptr) {
            return isAttached ? throw BadInput("takes no value") : std::string{};
        }
        const bool isMissing = !isAttached && (AtEnd() || words[next].starts_with("--"));
        std::string value = isMissing ? std::string{} : isAttached ? word.substr(equals + 1) : words[next++];
        if (value.empty()) {
            throw BadInput(std::string("needs a value: ") + option.value);
        }
        return value;
    }

    const std::vector<std::string>& words;
    std::size_t next = 0;
    std::set<std::string> seen;
};

}  // namespace

Options ParseOptions(const std::vector<std::string>& words)
{
    Options options;
    for (const std::string& word : words) {
        if (word == "--help" || word == "-h" || word == "--version") {
            options.action = word == "--version" ? Options::Action::Version : Options::Action::Help;
            return options;
        }
    }
    if (words.empty() || words[0] != "run") {
        throw BadInput(words.empty() ? "no command given" : "unknown command \"" + words[0] + "\"");
    }
    const std::vector<std::string> rest(words.begin() + 1, words.end());
    for (Words reader(rest); !reader.AtEnd();) {
        reader.TakeOption(options);
    }
    if (options.policyFile.empty()) {
        throw BadInput("option --policy is required");
    }
    return options;
}

std::string UsageText()
{
    constexpr int column = 24;
    std::string text =
        "containerescape-agent watches the processes in this host's containers and reports attempts to break out.\n\n"
        "usage: containerescape-agent run --policy FILE [option...]\n"
        "       containerescape-agent --help | --version\n\noptions:\n";
    for (const Option& option : optionList) {
        const std::string left = std::string(option.name) + (option.value != nullptr ? " " : "") +
                                 (option.value != nullptr ? option.value : "");
        text += SDK::StrUtils::Format("  %-*s %s\n", column, left.c_str(), option.help);
    }
    text +=
        "\nSIGINT and SIGTERM stop it, SIGHUP makes it read the policy again.\n"
        "exit codes: 0 clean stop, 1 failure while running, 2 bad usage or input, 77 this machine cannot run it\n";
    return text;
}

}  // namespace Agent
