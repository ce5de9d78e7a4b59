// SPDX-License-Identifier: Apache-2.0
#include "host/agent/Manual.h"

#include <CLI/CLI.hpp>

#include <vector>

namespace Agent {

namespace {

// Without those that are hidden.
std::vector<CLI::App*> CommandsOf(CLI::App& program)
{
    return program.get_subcommands([](const CLI::App* command) { return !command->get_group().empty(); });
}

// The options of a command with a name of their own.
std::vector<CLI::Option*> OptionsOf(CLI::App& command)
{
    return command.get_options([](const CLI::Option* option) { return !option->get_lnames().empty(); });
}

// As text for troff(1): a minus is no hyphen, a backslash is itself, and no line begins with a request.
std::string Troff(const std::string& text)
{
    std::string escaped;
    bool isAtStart = true;
    for (const char c : text) {
        if (isAtStart && (c == '.' || c == '\'')) {
            escaped += "\\&";
        }
        escaped += c == '\\' ? "\\e" : c == '-' ? "\\-" : std::string(1, c);
        isAtStart = c == '\n';
    }
    return escaped;
}

void Describe(CLI::App& command, const std::string& name, std::string& page)
{
    page += ".SS " + Troff(name) + "\n" + Troff(command.get_description()) + "\n";
    for (const CLI::Option* option : OptionsOf(command)) {
        const std::string kind = option->get_option_text();
        page += ".TP\n.B " + Troff("--" + option->get_lnames().front() + (kind.empty() ? "" : " " + kind)) + "\n" +
                Troff(option->get_description()) + "\n";
    }
    for (CLI::App* below : CommandsOf(command)) {
        Describe(*below, name + " " + below->get_name(), page);
    }
}

// A line of the completion for each command: the words that led to it, and those that may follow.
void Complete(CLI::App& command, const std::string& path, std::string& lines)
{
    std::string words;
    for (const CLI::App* below : CommandsOf(command)) {
        words += below->get_name() + " ";
    }
    for (const CLI::Option* option : OptionsOf(command)) {
        words += "--" + option->get_lnames().front() + " ";
    }
    lines += "        \"" + path + "\") words=\"" + words + "\" ;;\n";
    for (CLI::App* below : CommandsOf(command)) {
        Complete(*below, path.empty() ? below->get_name() : path + " " + below->get_name(), lines);
    }
}

}  // namespace

std::string ManualPage(CLI::App& program)
{
    const std::string name = program.get_name();
    std::string page = ".TH " + Troff(name) + " 8 \"\" \"" CE_VERSION "\"\n.SH NAME\n" + Troff(name) +
                       " \\- reports attempts to break out of containers\n.SH SYNOPSIS\n.B " + Troff(name) +
                       "\n.I COMMAND\n[\n.I OPTIONS\n]\n.SH DESCRIPTION\n" + Troff(program.get_description()) +
                       "\n.SH COMMANDS\n";
    for (CLI::App* command : CommandsOf(program)) {
        Describe(*command, command->get_name(), page);
    }
    return page + ".SH NOTES\n.nf\n" + Troff(program.get_footer()) + "\n.fi\n";
}

// The words up to the cursor that are no options lead to a command; after an option with a value come files.
std::string BashCompletion(CLI::App& program)
{
    std::string commands;
    Complete(program, "", commands);
    return R"(# Made by containerescape-agent.
_containerescape_agent()
{
    local current=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} command= words= word
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        case $word in -*) break ;; *) command="${command:+$command }$word" ;; esac
    done
    case $command in
)" + commands +
           R"(    esac
    if [[ $before == --* && $current != -* ]]; then
        mapfile -t COMPREPLY < <(compgen -f -- "$current")
    else
        mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
    fi
}
complete -o filenames -F _containerescape_agent containerescape-agent
)";
}

}  // namespace Agent
