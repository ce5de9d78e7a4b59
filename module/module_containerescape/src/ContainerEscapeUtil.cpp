// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeUtil.h"

#include <linux/audit.h>

#include <array>
#include <climits>
#include <cstdlib>

#include "PathEntry.h"
#include "SyscallTables.h"
#include "sdk/LoggerUtils.h"

namespace Engine {

int ContainerEscapeUtil::GetSyscallNumber(const std::string& name)
{
    return X8664SyscallTable().NumberOf(name);
}

bool ContainerEscapeUtil::SyscallChecker(const std::string& name)
{
    return X8664SyscallTable().NumberOf(name) >= 0 || I386SyscallTable().NumberOf(name) >= 0;
}

std::string ContainerEscapeUtil::NameOf(int number, const std::string& arch)
{
    switch (std::strtoul(arch.c_str(), nullptr, 16)) {
        case AUDIT_ARCH_X86_64:
            return std::string{X8664SyscallTable().NameOf(number)};
        case AUDIT_ARCH_I386:
            return std::string{I386SyscallTable().NameOf(number)};
        default:
            return {};
    }
}

bool ContainerEscapeUtil::GetPathAndPerm(const std::string& entry, std::string& path, std::string& perm)
{
    const SDK::PathEntry parsed = SDK::ParsePathEntry(entry);
    if (parsed.error != nullptr) {
        return false;
    }
    if (!parsed.letters.empty()) {
        perm = parsed.letters;
    }
    path = parsed.path;
    return true;
}

bool ContainerEscapeUtil::IsPathEntry(const std::string& entry)
{
    std::string path;
    std::string perm;
    return GetPathAndPerm(entry, path, perm);
}

bool ContainerEscapeUtil::PathChecker(const std::string& entry)
{
    std::string path;
    std::string perm;
    std::array<char, PATH_MAX> resolved{};
    return GetPathAndPerm(entry, path, perm) && ::realpath(path.c_str(), resolved.data()) != nullptr;
}

bool ContainerEscapeUtil::StartsWith(const std::string& path, const std::string& dir)
{
    if (!path.starts_with(dir)) {
        return false;
    }
    if (dir.ends_with('/')) {
        return true;
    }
    return path.size() > dir.size() && path[dir.size()] == '/';
}

Poco::Logger* ContainerEscapeUtil::GetLoggerPtr()
{
    // A local static, because the detection task and the namespace task may both come here first.
    static Poco::Logger* const logger =
        SDK::LoggerUtils::GetInstance()->GetModuleLogger("containerescape_module", false);
    return logger;
}

}  // namespace Engine
