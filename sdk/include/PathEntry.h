// SPDX-License-Identifier: Apache-2.0
// The entry of a policy that names a path to watch: the path alone, or the path, "*/*" and one to four of the
// permission letters r, w, x and a (repeats are accepted), for example "/srv/data*/*rwa". Header-only.
#pragma once

#include <string_view>

namespace SDK {

// Views into the text that was parsed.
struct PathEntry {
    std::string_view path;
    std::string_view letters;     // empty: the entry has none
    const char* error = nullptr;  // what is wrong with the letters; null: nothing
};

// Splits at the first "*/*". The path is not looked at: it may be empty, relative or absent. Pure, any thread.
inline PathEntry ParsePathEntry(std::string_view text)
{
    constexpr std::string_view separator = "*/*";
    const auto end = text.find(separator);
    if (end == std::string_view::npos) {
        return {text, {}};
    }
    const std::string_view letters = text.substr(end + separator.size());
    const bool good =
        !letters.empty() && letters.size() <= 4 && letters.find_first_not_of("rwxa") == std::string_view::npos;
    return {text.substr(0, end), letters,
            good ? nullptr : "after */* there must be one to four of the letters r, w, x and a"};
}

}  // namespace SDK
