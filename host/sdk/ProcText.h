// SPDX-License-Identifier: Apache-2.0
// What the texts of /proc/<pid>'s files say (proc(5)). All of it any thread.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace SDK::ProcText {

// Of `status`: the text after "KEY:" and its blanks, up to the line's end.
std::optional<std::string_view> ValueOf(std::string_view text, std::string_view key);

// The whole text as a number.
std::optional<int> Number(std::string_view text);

// Of `status`: the name as trace events carry it, at most 15 bytes.
std::string Comm(std::string_view escaped);

// Of `cmdline`.
std::vector<std::string> Arguments(std::string_view text);

// Of `stat`.
struct Stat {
    int parent = 0;          // of the process, a process id
    std::int64_t start = 0;  // in clock ticks (sysconf(_SC_CLK_TCK)) of CLOCK_BOOTTIME, which goes on in suspend
};
std::optional<Stat> StatOf(std::string_view text);

}  // namespace SDK::ProcText
