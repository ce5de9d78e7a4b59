// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Options.h"

#include <CLI/CLI.hpp>

#include <unistd.h>

#include <algorithm>

#include "host/agent/Configuration.h"
#include "host/agent/Console.h"
#include "host/agent/EngineOptions.h"
#include "host/agent/EnvelopeOptions.h"
#include "host/agent/Manual.h"
#include "host/agent/PolicyText.h"
#include "host/sdk/Config.h"

namespace Agent {

namespace {

constexpr unsigned int leastBufferKb = 4;        // a page
constexpr unsigned int maxBufferKb = 1U << 20U;  // a GiB for each CPU
constexpr unsigned int maxRealtimePercent = 95;  // what the kernel leaves to real-time threads, sched(7)
constexpr unsigned int maxAlarmsMb = 1U << 20U;
constexpr unsigned int maxAlarmsKept = 1000;
constexpr unsigned int maxIntervalSeconds = 86400;  // a day

const char closingText[] =
    "A policy is a JSON document:\n"
    "  {\"content\": {\"image_white_namelist\": [\"trusted-image\"],\n"
    "               \"container_escape_detect_task\": {\"highrisk_calls\": [\"setns\", \"mount\"],\n"
    "                                                \"host_directorys\": [\"/etc\"], \"scope\": \"container\"}}}\n"
    "\n"
    "SIGINT and SIGTERM stop it, SIGHUP makes it read the policy again.\n"
    "Exit codes of run: 0 clean stop, 1 failure while running, 2 bad usage or input, 77 this machine cannot run it.";

// An empty value would pass for an option that was not given, and the next option for a value that was forgotten.
CLI::Option* AddText(CLI::App& command, const char* name, std::string& value, const char* kind, const char* help)
{
    const CLI::Validator isValue(
        [](const std::string& text) { return text.empty() || text.starts_with("--") ? "needs a value" : ""; }, "");
    return command.add_option(name, value, help)->capture_default_str()->option_text(kind)->check(isValue);
}

void AddFlag(CLI::App& command, const char* name, bool& value, const char* help)
{
    command.add_flag(name, value, help)->disable_flag_override()->multi_option_policy(CLI::MultiOptionPolicy::Throw);
}

// How it watches.
void AddSourceOptions(CLI::App& command, Options& options)
{
    AddText(command, "--modules", options.modulesDir, "DIR", "Where the modules are, if not where they were installed");
    command.add_option("--buffer-kb", options.bufferKb, "Size of the kernel's buffers for each CPU, in KiB")
        ->capture_default_str()
        ->option_text("N")
        ->check(CLI::Range(leastBufferKb, maxBufferKb));
    AddText(command, "--syscalls", options.syscallSource, "SOURCE",
            "Where system calls are recorded: by BPF at the functions that serve them (function), by BPF at the event "
            "sys_enter (enter), by either (bpf), as trace events (tracefs), or auto (the default): the first of these "
            "that the kernel allows")
        ->check(CLI::IsMember({"auto", "function", "enter", "bpf", "tracefs"}));
}

// What it watches, and how.
void AddWatchOptions(CLI::App& command, Options& options)
{
    AddEngineOption(command, options);
    AddText(command, "--docker-socket", options.dockerSocket, "PATH",
            "The same as --engine docker=PATH, which is newer; none: no engine but those of --engine");
    AddFlag(command, "--namespace-check", options.namespaceCheck,
            "Compare the namespaces of container processes regularly");
    AddSourceOptions(command, options);
}

void AddConfigurationOption(CLI::App& command, Options& options)
{
    AddText(command, "--config", options.configurationFile, "FILE",
            "The configuration: a JSON object whose keys are these options without their dashes; what the command line "
            "sets counts more. Without it, " CE_CONFIGURATION " is read if it is there (none: not even that)");
}

void AddMetricsOption(CLI::App& command, Options& options)
{
    AddText(
        command, "--metrics", options.metricsAddress, "unix:PATH|127.0.0.1:PORT",
        "Where metrics (/metrics, for Prometheus), /healthz and what the command status shows are served by HTTP: a "
        "socket for its owner alone, or a port of a loopback address, which every process of the host may read");
}

void AddRunOptions(CLI::App& command, Options& options)
{
    CLI::App* run = &command;
    AddConfigurationOption(command, options);
    AddText(
        *run, "--policy", options.policyFile, "FILE (required, here or in the configuration)",
        "The policy: image whitelist, high-risk calls, host directories, and whether containers are judged together "
        "(\"scope\": \"thread\") or each by itself (\"container\")");
    AddText(*run, "--alarms", options.alarmsFile, "FILE",
            "Append alarms to FILE instead of writing them to standard output");
    AddText(
        *run, "--alarm-format", options.alarmFormat, "FORM",
        "plain: the document of the detection module; envelope: a JSON object around it that tells of host, process, "
        "container and losses; text: a line for people; auto (the default): text on a terminal, else plain")
        ->check(CLI::IsMember({"plain", "envelope", "text", "auto"}));
    AddEnvelopeOptions(*run, options);
    AddFlag(
        *run, "--show-excepted", options.showExcepted,
        "Deliver alarms that an exception of the configuration holds for, too, marked with its name: in an envelope "
        "as \"excepted\". Needs --alarm-format envelope or text");
    run->add_option("--alarms-max-mb", options.alarmsMaxMb,
                    "Rename FILE to FILE.1, FILE.1 to FILE.2 and so on when it has N megabytes (0: never, the default)")
        ->capture_default_str()
        ->option_text("N")
        ->check(CLI::Range(0U, maxAlarmsMb));
    run->add_option("--alarms-keep", options.alarmsKept, "How many renamed files are kept (5)")
        ->capture_default_str()
        ->option_text("N")
        ->check(CLI::Range(1U, maxAlarmsKept));
    AddWatchOptions(*run, options);
    AddFlag(*run, "--require-all", options.requireAll,
            "Do not start where something that the policy lists, or a detector, is not watched: exit with code 2");
    AddText(*run, "--log-level", options.logLevel, "LEVEL",
            "none, fatal, critical, error, warning, notice (the default), information, debug or trace")
        ->check(CLI::IsMember(
            {"none", "fatal", "critical", "error", "warning", "notice", "information", "debug", "trace"}));
    run->add_option("--realtime", options.realtimePercent,
                    "CPU time in each second, in percent of one CPU, that detection may take at real-time priority "
                    "(70; 0: none)")
        ->capture_default_str()
        ->option_text("PERCENT")
        ->check(CLI::Range(0U, maxRealtimePercent));
    AddText(*run, "--stats", options.statsFile, "FILE",
            "Write all counters to FILE as JSON, at every status line or else every ten seconds, and at the stop");
    run->add_option_function<unsigned int>(
           "--status-interval",
           [&options](unsigned int seconds) { options.statusInterval = std::chrono::seconds{seconds}; },
           "Write a status line to standard error every N seconds (0: none, the default)")
        ->default_str("0")
        ->capture_default_str()
        ->option_text("N")
        ->check(CLI::Range(0U, maxIntervalSeconds));
    AddMetricsOption(*run, options);
}

void AddStatusCommand(CLI::App& program, Options& options)
{
    CLI::App* status = program.add_subcommand(
        "status",
        "Ask the agent that runs how it does: what it watches, what it saw and lost, its alarms. It needs --metrics, "
        "here or in the configuration, as the agent has it. Exit codes: 0 healthy, 1 not healthy, 2 no agent answers");
    AddConfigurationOption(*status, options);
    AddMetricsOption(*status, options);
    AddFlag(*status, "--json", options.asJson, "Answer with a JSON document");
    status->callback([&options] { options.command = Command::Status; });
}

void AddCheckCommand(CLI::App& program, Options& options)
{
    CLI::App* check =
        program.add_subcommand("check",
                               "Tell what a start would watch on this machine, and what not and why. It is a start, "
                               "without alarms, that stops "
                               "at once. Exit codes: 0 all is well, 1 there are warnings, 2 it would not start");
    AddConfigurationOption(*check, options);
    AddText(*check, "--policy", options.policyFile, "FILE", "The policy; without one only the machine is checked");
    AddWatchOptions(*check, options);
    AddFlag(*check, "--json", options.asJson, "Answer with a JSON document");
    check->callback([&options] {
        options.command = Command::Check;
        options.alarmsFile = "/dev/null";
        options.logLevel = "none";
        options.realtimePercent = 0;
    });
}

void AddSelfTestCommand(CLI::App& program, Options& options)
{
    CLI::App* test = program.add_subcommand(
        "selftest",
        "Attack as a container would and say, within three seconds, which detectors raised an alarm. Another agent on "
        "this host alarms, too: of the container 5e1f7e57... Exit codes: 0 all did, 1 not all, 2 it does not "
        "start");
    AddSourceOptions(*test, options);
    test->callback([&options] {
        options.command = Command::SelfTest;
        options.engines = {SDK::Config::noEngine};
        options.logLevel = "warning";
    });
    CLI::App* attack = program.add_subcommand("selftest-attack", "")->group("");  // hidden: it is the test's own
    attack->add_option("directory", options.attackedDirectory)->required();
    attack->callback([&options] { options.command = Command::Attack; });
}

void AddPolicyCommand(CLI::App& program, Options& options)
{
    CLI::App* policy = program.add_subcommand("policy", "Print what helps to write a policy")->require_subcommand(0, 1);
    policy->add_subcommand("example", "The policy that is installed")->callback([&options] {
        options.answer = ExamplePolicy();
    });
    policy->add_subcommand("schema", "The JSON Schema of policies, for editors and validators")->callback([&options] {
        options.answer = PolicySchema();
    });
    CLI::App* explain = policy->add_subcommand("explain", "What each entry of a policy makes the agent do");
    AddText(*explain, "--policy", options.policyFile, "FILE (required)", "The policy")->required();
    explain->callback([&options] { options.command = Command::Explain; });
    policy->callback([policy] {
        if (policy->get_subcommands().empty()) {
            throw BadInput("policy: example, schema or explain?");
        }
    });
}

void AddTuneCommand(CLI::App& program, Options& options)
{
    CLI::App* tune = program.add_subcommand(
        "tune",
        "tune ALARMS: tell how often each image and program alarmed, by a file of alarms (plain or envelope), and "
        "which "
        "entry of the configuration's \"exceptions\" would silence just that. What an exception that is there already "
        "holds for is only counted. Only envelopes tell of programs and pods");
    tune->add_option("ALARMS", options.inspectedAlarms, "The file")->required();
    AddConfigurationOption(*tune, options);
    tune->callback([&options] { options.command = Command::Tune; });
}

// One reading of a command line.
class CommandLine {
public:
    CommandLine()
    {
        program.set_help_flag();
        program.set_help_all_flag("-h,--help", "Print this help");
        program.set_version_flag("--version", "containerescape-agent " CE_VERSION);
        program.require_subcommand(0, 1);  // a word that is no command is named in the error; none at all, see Parse
        program.footer(closingText);
        run = program.add_subcommand("run", "Watch this host until a signal stops it");
        AddRunOptions(*run, options);
        AddCheckCommand(program, options);
        AddSelfTestCommand(program, options);
        AddStatusCommand(program, options);
        AddPolicyCommand(program, options);
        AddTuneCommand(program, options);
        CLI::App* config = program.add_subcommand("config", "Show the configuration")->require_subcommand(1);
        show = config->add_subcommand("show", "Every option of run: its value, and where that comes from");
        AddRunOptions(*show, options);
        show->callback([this] { options.command = Command::ShowConfiguration; });
        // Hidden: for the build, which installs what they print.
        program.add_subcommand("manual", "")->group("")->callback([this] { options.answer = ManualPage(program); });
        program.add_subcommand("completion", "")->group("")->callback([this] {
            options.answer = BashCompletion(program);
        });
    }

    void Parse(std::vector<std::string> words)
    {
        std::reverse(words.begin(), words.end());  // the library takes them from the back
        try {
            program.parse(std::move(words));
            if (program.get_subcommands().empty()) {
                throw BadInput("no command given");
            }
        } catch (const CLI::CallForAllHelp&) {
            options.answer = program.help("", CLI::AppFormatMode::All);
        } catch (const CLI::CallForVersion& version) {
            options.answer = std::string(version.what()) + "\n";
        } catch (const CLI::Error& problem) {
            throw BadInput(problem.what());
        }
    }

    // The command that was given, if the configuration file has a say in it; else null.
    CLI::App* Configurable()
    {
        for (CLI::App* each : {run, show}) {
            if (each->parsed()) {
                return each;
            }
        }
        for (const char* name : {"check", "status", "tune"}) {
            if (program.got_subcommand(name)) {
                return program.get_subcommand(name);
            }
        }
        return nullptr;
    }
    // That the configuration may set.
    std::map<std::string, OptionKind> OptionsOfRun() const
    {
        std::map<std::string, OptionKind> kinds;
        for (const CLI::Option* option : run->get_options()) {
            const std::string name = option->get_lnames().empty() ? "help" : option->get_lnames().front();
            if (name != "help" && name != "config") {
                kinds.emplace(name, option->get_expected_max() == 0 ? OptionKind::Flag
                                    : option->get_multi_option_policy() == CLI::MultiOptionPolicy::TakeAll
                                        ? OptionKind::List
                                        : OptionKind::Value);
            }
        }
        return kinds;
    }

    Options options;

private:
    CLI::App program{"Watches the processes in this host's containers and reports attempts to break out.",
                     "containerescape-agent"};
    CLI::App* run = nullptr;
    CLI::App* show = nullptr;
};

// What an option's value has to be, the command line says, too.
void Validate(const Setting& setting)
{
    try {
        for (const std::string& word : setting.words) {
            CommandLine().Parse({"run", word});
        }
    } catch (const BadInput& problem) {
        throw BadInput("configuration " + setting.place + ": " + problem.what());
    }
}

}  // namespace

const char* DefaultConfiguration()
{
    return CE_CONFIGURATION;
}

Options ParseOptions(std::vector<std::string> words)
{
    CommandLine given;
    given.Parse(words);
    CLI::App* const command = given.options.answer.empty() ? given.Configurable() : nullptr;
    if (command == nullptr) {
        given.options.words = std::move(words);
        return given.options;
    }
    std::string file = given.options.configurationFile;
    if (file.empty() && ::access(DefaultConfiguration(), F_OK) == 0) {
        file = DefaultConfiguration();
    }
    std::vector<std::string> warnings;
    std::map<std::string, Options::Value> values;
    std::vector<std::string> all = words;
    ExceptionRules exceptions;
    if (!file.empty() && file != noConfiguration) {
        Configuration configuration = ReadConfiguration(file, given.OptionsOfRun(), warnings);
        exceptions = std::move(configuration.exceptions);
        for (const Setting& setting : configuration.settings) {
            Validate(setting);
            if (setting.key == exceptionsKey) {
                values[setting.key] = {setting.value, setting.place};
            }
            const CLI::Option* option = command->get_option_no_throw("--" + setting.key);
            if (option != nullptr && option->count() == 0) {
                values[setting.key] = {setting.value, setting.place};
                all.insert(all.end(), setting.words.begin(), setting.words.end());
            }
        }
    }
    CommandLine whole;
    whole.Parse(all);
    Options options = std::move(whole.options);
    if (options.command == Command::Run && options.policyFile.empty()) {
        throw BadInput("--policy is required");
    }
    if (options.showExcepted && options.alarmFormat != "envelope" && options.alarmFormat != "text") {
        throw BadInput("--show-excepted needs --alarm-format envelope or text: a plain document cannot be marked");
    }
    options.exceptions = std::move(exceptions);
    for (const auto& [name, kind] : whole.OptionsOfRun()) {
        if (const CLI::Option* option = command->get_option_no_throw("--" + name);
            option != nullptr && option->count() > 0) {
            values[name] = {kind == OptionKind::Flag ? "true" : CLI::detail::join(option->results(), ", "),
                            "command line"};
        } else if (option != nullptr && !values.contains(name)) {
            const std::string& text = option->get_default_str();
            values[name] = {kind == OptionKind::Flag ? "false" : text, "default"};
        }
    }
    options.words = std::move(words);
    options.warnings = std::move(warnings);
    options.values = std::move(values);
    return options;
}

std::string ShowValues(const Options& options)
{
    std::string text;
    for (const auto& [name, value] : options.values) {
        text += Line(name + ": " + (value.text.empty() ? "not set" : value.text) + " (" + value.origin + ")");
    }
    return text;
}

}  // namespace Agent
