// SPDX-License-Identifier: Apache-2.0
#include "host/container/ExecutedProgram.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace Engine::ExecutedProgram {

namespace {

// Each ends in a zero byte, the last one perhaps not: it was cut off.
std::vector<std::string> Texts(std::string_view bytes)
{
    std::vector<std::string> texts;
    while (!bytes.empty()) {
        const std::string_view text = bytes.substr(0, bytes.find('\0'));
        texts.emplace_back(text);
        bytes.remove_prefix(std::min(bytes.size(), text.size() + 1));
    }
    return texts;
}

std::string PathOf(const CePath& path)
{
    std::string text;
    if (path.bytes == 0 || path.bytes > sizeof path.names) {
        return text;
    }
    const std::vector<std::string> names = Texts({path.names, path.bytes - 1});
    for (auto name = names.rbegin(); name != names.rend(); ++name) {
        text.append("/").append(*name);
    }
    return text.empty() ? "/" : text;
}

// As in /proc/<pid>/status.
std::string Hexadecimal(unsigned long long number)
{
    std::array<char, 17> digits{};
    std::snprintf(digits.data(), digits.size(), "%016llx", number);
    return digits.data();
}

}  // namespace

std::shared_ptr<const SDK::ProcessDetails> Details(int process, const CeProgram& program)
{
    auto details = std::make_shared<SDK::ProcessDetails>();
    details->process = process;
    details->parent = program.parent;
    details->started = std::chrono::nanoseconds{program.started};
    details->arguments = Texts({program.arguments, std::min<std::size_t>(program.argumentBytes, CE_ARGUMENT_BYTES)});
    details->executable = PathOf(program.executable);
    details->workingDirectory = PathOf(program.workingDirectory);
    details->uid = program.uid;
    details->gid = program.gid;
    details->loginUid = program.loginUid;
    details->capabilities = Hexadecimal(program.capabilities);
    return details;
}

}  // namespace Engine::ExecutedProgram
