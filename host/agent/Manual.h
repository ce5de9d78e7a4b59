// SPDX-License-Identifier: Apache-2.0
// The manual page and the shell's completion, made of the command line's own table of options.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace Agent {

// For man(1), section 8.
std::string ManualPage(CLI::App& program);

// For bash-completion: commands, options and, where there is a list of them, values.
std::string BashCompletion(CLI::App& program);

}  // namespace Agent
