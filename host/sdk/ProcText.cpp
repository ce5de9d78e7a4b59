// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/ProcText.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <system_error>

namespace SDK::ProcText {

std::optional<std::string_view> ValueOf(std::string_view text, std::string_view key)
{
    while (!text.empty()) {
        std::string_view line = text.substr(0, text.find('\n'));
        text.remove_prefix(std::min(text.size(), line.size() + 1));
        if (line.substr(0, key.size()) == key && line.substr(key.size(), 1) == ":") {
            line.remove_prefix(key.size() + 1);
            line.remove_prefix(std::min(line.size(), line.find_first_not_of(" \t")));
            return line;
        }
    }
    return std::nullopt;
}

std::optional<int> Number(std::string_view text)
{
    int number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return number;
}

// The kernel writes a newline in a name as "\n" and a backslash as "\\" (proc_task_name() in fs/proc/array.c), and for
// its own workers more than the name (wq_worker_comm()), which is cut here.
std::string Comm(std::string_view escaped)
{
    constexpr std::size_t maxBytes = 15;  // TASK_COMM_LEN in include/linux/sched.h, less the terminator
    std::string comm;
    for (std::size_t i = 0; i < escaped.size() && comm.size() < maxBytes; ++i) {
        if (escaped[i] == '\\' && i + 1 < escaped.size()) {
            ++i;
            comm += escaped[i] == 'n' ? '\n' : escaped[i];
        } else {
            comm += escaped[i];
        }
    }
    return comm;
}

std::vector<std::string> Arguments(std::string_view text)
{
    std::vector<std::string> arguments;
    while (!text.empty()) {
        const std::string_view argument = text.substr(0, text.find('\0'));
        arguments.emplace_back(argument);
        text.remove_prefix(std::min(text.size(), argument.size() + 1));
    }
    return arguments;
}

// Field 22 of the line. Counted from the end of the name, which may hold anything, a parenthesis included.
std::optional<std::int64_t> StartTicks(std::string_view text)
{
    constexpr int fieldsBefore = 19;  // after the name
    std::size_t at = text.rfind(") ");
    for (int i = 0; i <= fieldsBefore && at != std::string_view::npos; ++i) {
        at = text.find(' ', at + 1);
    }
    std::int64_t ticks = 0;
    if (at == std::string_view::npos ||
        std::from_chars(text.data() + at + 1, text.data() + text.size(), ticks).ec != std::errc{}) {
        return std::nullopt;
    }
    return ticks;
}

}  // namespace SDK::ProcText
