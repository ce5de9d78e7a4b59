// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <string>
#include <vector>

namespace SDK {

class StrUtils {
public:
    // Splits at every occurrence of `separator` and keeps empty fields, so n separators give n + 1 parts. `parts` is
    // replaced. An empty text gives one empty part; an empty separator gives the whole text.
    static void Split(const std::string& text, const std::string& separator, std::vector<std::string>& parts);

    // printf(3) into a string of whatever length. Empty when printf refuses the format. Any thread.
    static std::string Format(const char* format, ...) __attribute__((format(printf, 1, 2)));
};

}  // namespace SDK
