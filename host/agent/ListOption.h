// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <CLI/CLI.hpp>

#include <functional>
#include <string>
#include <vector>

namespace Agent {

// An option that may be given as often as needed; its key in the configuration takes a list. `kind`: what the help
// calls its value. `whyNot`: what is wrong with a value, empty for nothing.
inline void AddList(CLI::App& command, const char* name, std::vector<std::string>& values, const char* kind,
                    const char* help, std::function<std::string(std::string& text)> whyNot)
{
    command.add_option(name, values, help)
        ->option_text(kind)
        ->expected(1)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll)
        ->check(CLI::Validator(std::move(whyNot), ""));
}

}  // namespace Agent
