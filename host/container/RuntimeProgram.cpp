// SPDX-License-Identifier: Apache-2.0
#include "host/container/RuntimeProgram.h"

#include <algorithm>

namespace Engine {

namespace {

bool Cut(std::string_view& text, std::string_view start)
{
    if (!text.starts_with(start)) {
        return false;
    }
    text.remove_prefix(start.size());
    return true;
}

bool IsNumber(std::string_view text)
{
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// "self", "thread-self" or a number, in front of a slash.
bool CutProcess(std::string_view& text)
{
    const std::string_view process = text.substr(0, text.find('/'));
    if (process != "self" && process != "thread-self" && !IsNumber(process)) {
        return false;
    }
    text.remove_prefix(process.size());
    return true;
}

}  // namespace

bool IsSelfExecution(std::string_view filename)
{
    if (Cut(filename, "/dev/fd/")) {
        return IsNumber(filename);
    }
    if (!Cut(filename, "/proc/") || !CutProcess(filename)) {
        return false;
    }
    return filename == "/exe" || (Cut(filename, "/fd/") && IsNumber(filename));
}

}  // namespace Engine
