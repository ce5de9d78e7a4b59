// SPDX-License-Identifier: Apache-2.0
#include "sdk/StrUtils.h"

#include <cstdarg>
#include <cstdio>

namespace SDK {

void StrUtils::Split(const std::string& text, const std::string& separator, std::vector<std::string>& parts)
{
    std::vector<std::string> found;  // `text` may be an element of `parts`
    std::size_t begin = 0;
    if (!separator.empty()) {
        for (std::size_t end = text.find(separator); end != std::string::npos; end = text.find(separator, begin)) {
            found.push_back(text.substr(begin, end - begin));
            begin = end + separator.size();
        }
    }
    found.push_back(text.substr(begin));
    parts = std::move(found);
}

std::string StrUtils::Format(const char* format, ...)
{
    std::va_list arguments;
    std::va_list again;
    va_start(arguments, format);
    va_copy(again, arguments);
    const int length = std::vsnprintf(nullptr, 0, format, arguments);
    va_end(arguments);
    std::string text;
    if (length > 0) {
        text.resize(static_cast<std::size_t>(length));
        std::vsnprintf(text.data(), text.size() + 1, format, again);  // the terminator lands on the string's own
    }
    va_end(again);
    return text;
}

}  // namespace SDK
