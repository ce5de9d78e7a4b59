// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/ProcText.h"

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <system_error>

namespace SDK::ProcText {

namespace {

template <class Number>
bool Read(std::string_view text, Number& number)
{
    return std::from_chars(text.data(), text.data() + text.size(), number).ec == std::errc{};
}

}  // namespace

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

// Fields 4 and 22 of the line. Counted from the end of the name, which may hold anything, a parenthesis included.
std::optional<Stat> StatOf(std::string_view text)
{
    constexpr int parentField = 4;
    constexpr int startField = 22;
    const std::size_t name = text.rfind(") ");
    if (name == std::string_view::npos) {
        return std::nullopt;
    }
    text.remove_prefix(name + 2);
    Stat stat;
    for (int field = 3; field <= startField; ++field) {
        const std::string_view value = text.substr(0, text.find(' '));
        if ((field == parentField && !Read(value, stat.parent)) || (field == startField && !Read(value, stat.start))) {
            return std::nullopt;
        }
        text.remove_prefix(std::min(text.size(), value.size() + 1));
    }
    return stat;
}

}  // namespace SDK::ProcText
