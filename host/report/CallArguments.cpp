// SPDX-License-Identifier: Apache-2.0
#include "host/report/CallArguments.h"

#include <fcntl.h>
#include <linux/sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/ptrace.h>

#include <algorithm>
#include <array>
#include <limits>
#include <string_view>

#include "sdk/StrUtils.h"

namespace Engine::CallArguments {

namespace {

struct Name {
    std::uint64_t value;
    const char* text;
};
using Names = std::vector<Name>;

const Names& CloneFlags()
{
    static const Names names{{CLONE_VM, "CLONE_VM"},
                             {CLONE_FS, "CLONE_FS"},
                             {CLONE_FILES, "CLONE_FILES"},
                             {CLONE_SIGHAND, "CLONE_SIGHAND"},
                             {CLONE_VFORK, "CLONE_VFORK"},
                             {CLONE_PARENT, "CLONE_PARENT"},
                             {CLONE_THREAD, "CLONE_THREAD"},
                             {CLONE_SYSVSEM, "CLONE_SYSVSEM"},
                             {CLONE_NEWTIME, "CLONE_NEWTIME"},
                             {CLONE_NEWNS, "CLONE_NEWNS"},
                             {CLONE_NEWCGROUP, "CLONE_NEWCGROUP"},
                             {CLONE_NEWUTS, "CLONE_NEWUTS"},
                             {CLONE_NEWIPC, "CLONE_NEWIPC"},
                             {CLONE_NEWUSER, "CLONE_NEWUSER"},
                             {CLONE_NEWPID, "CLONE_NEWPID"},
                             {CLONE_NEWNET, "CLONE_NEWNET"}};
    return names;
}

const Names& MountFlags()
{
    static const Names names{{MS_RDONLY, "MS_RDONLY"},
                             {MS_NOSUID, "MS_NOSUID"},
                             {MS_NODEV, "MS_NODEV"},
                             {MS_NOEXEC, "MS_NOEXEC"},
                             {MS_SYNCHRONOUS, "MS_SYNCHRONOUS"},
                             {MS_REMOUNT, "MS_REMOUNT"},
                             {MS_NOATIME, "MS_NOATIME"},
                             {MS_NODIRATIME, "MS_NODIRATIME"},
                             {MS_BIND, "MS_BIND"},
                             {MS_MOVE, "MS_MOVE"},
                             {MS_REC, "MS_REC"},
                             {MS_SILENT, "MS_SILENT"},
                             {MS_UNBINDABLE, "MS_UNBINDABLE"},
                             {MS_PRIVATE, "MS_PRIVATE"},
                             {MS_SLAVE, "MS_SLAVE"},
                             {MS_SHARED, "MS_SHARED"},
                             {MS_RELATIME, "MS_RELATIME"},
                             {MS_STRICTATIME, "MS_STRICTATIME"}};
    return names;
}

const Names& UmountFlags()
{
    static const Names names{{MNT_FORCE, "MNT_FORCE"},
                             {MNT_DETACH, "MNT_DETACH"},
                             {MNT_EXPIRE, "MNT_EXPIRE"},
                             {UMOUNT_NOFOLLOW, "UMOUNT_NOFOLLOW"}};
    return names;
}

const Names& OpenFlags()
{
    static const Names names{
        {O_WRONLY, "O_WRONLY"},     {O_RDWR, "O_RDWR"},       {O_CREAT, "O_CREAT"},       {O_EXCL, "O_EXCL"},
        {O_TRUNC, "O_TRUNC"},       {O_APPEND, "O_APPEND"},   {O_NONBLOCK, "O_NONBLOCK"}, {O_DIRECTORY, "O_DIRECTORY"},
        {O_NOFOLLOW, "O_NOFOLLOW"}, {O_CLOEXEC, "O_CLOEXEC"}, {O_PATH, "O_PATH"}};
    return names;
}

const Names& TraceRequests()
{
    static const Names names{{PTRACE_TRACEME, "PTRACE_TRACEME"},   {PTRACE_PEEKTEXT, "PTRACE_PEEKTEXT"},
                             {PTRACE_PEEKDATA, "PTRACE_PEEKDATA"}, {PTRACE_POKETEXT, "PTRACE_POKETEXT"},
                             {PTRACE_POKEDATA, "PTRACE_POKEDATA"}, {PTRACE_CONT, "PTRACE_CONT"},
                             {PTRACE_KILL, "PTRACE_KILL"},         {PTRACE_ATTACH, "PTRACE_ATTACH"},
                             {PTRACE_DETACH, "PTRACE_DETACH"},     {PTRACE_SEIZE, "PTRACE_SEIZE"},
                             {PTRACE_SETREGS, "PTRACE_SETREGS"},   {PTRACE_SETREGSET, "PTRACE_SETREGSET"}};
    return names;
}

const Names& MemoryAdvice()
{
    static const Names names{{MADV_NORMAL, "MADV_NORMAL"},         {MADV_RANDOM, "MADV_RANDOM"},
                             {MADV_SEQUENTIAL, "MADV_SEQUENTIAL"}, {MADV_WILLNEED, "MADV_WILLNEED"},
                             {MADV_DONTNEED, "MADV_DONTNEED"},     {MADV_FREE, "MADV_FREE"},
                             {MADV_REMOVE, "MADV_REMOVE"},         {MADV_HUGEPAGE, "MADV_HUGEPAGE"}};
    return names;
}

// How one argument of a call is read. A descriptor is an int in the lower half of its register.
enum class Kind { Flags, Choice, Descriptor };
struct Meaning {
    std::string_view call;  // empty: any
    std::string_view argument;
    Kind kind;
    const Names& (*names)();
};
constexpr std::array<Meaning, 19> meanings{{{"unshare", "unshare_flags", Kind::Flags, CloneFlags},
                                            {"clone", "clone_flags", Kind::Flags, CloneFlags},
                                            {"setns", "flags", Kind::Flags, CloneFlags},
                                            {"setns", "nstype", Kind::Flags, CloneFlags},
                                            {"mount", "flags", Kind::Flags, MountFlags},
                                            {"umount2", "flags", Kind::Flags, UmountFlags},
                                            {"open", "flags", Kind::Flags, OpenFlags},
                                            {"openat", "flags", Kind::Flags, OpenFlags},
                                            {"open_by_handle_at", "flags", Kind::Flags, OpenFlags},
                                            {"ptrace", "request", Kind::Choice, TraceRequests},
                                            {"madvise", "behavior", Kind::Choice, MemoryAdvice},
                                            {"", "fd", Kind::Descriptor, nullptr},
                                            {"", "dfd", Kind::Descriptor, nullptr},
                                            {"", "olddfd", Kind::Descriptor, nullptr},
                                            {"", "newdfd", Kind::Descriptor, nullptr},
                                            {"", "from_dfd", Kind::Descriptor, nullptr},
                                            {"", "to_dfd", Kind::Descriptor, nullptr},
                                            {"", "mountdirfd", Kind::Descriptor, nullptr},
                                            {"", "fs_fd", Kind::Descriptor, nullptr}}};

std::string Hexadecimal(std::uint64_t value)
{
    return SDK::StrUtils::Format("0x%llx", static_cast<unsigned long long>(value));
}

// Each of the names that is in it, then the rest.
std::string FlagsIn(std::uint64_t value, const Names& names)
{
    std::string text;
    const auto add = [&text](const std::string& name) {
        text += (text.empty() ? "" : "|") + name;
    };
    for (const Name& name : names) {
        if ((value & name.value) == name.value) {
            add(name.text);
            value &= ~name.value;
        }
    }
    if (value != 0 || text.empty()) {
        add(value == 0 ? "0" : Hexadecimal(value));
    }
    return text;
}

Json::Value Number(std::uint64_t value)
{
    return value <= std::numeric_limits<std::uint32_t>::max() ? Json::Value{Json::UInt64{value}}
                                                              : Json::Value{Hexadecimal(value)};
}

Json::Value Named(std::uint64_t value, const Meaning& meaning)
{
    if (meaning.kind == Kind::Descriptor) {
        const auto descriptor = static_cast<std::int32_t>(value);
        return descriptor == AT_FDCWD ? Json::Value{"AT_FDCWD"} : Json::Value{descriptor};
    }
    const Names& names = meaning.names();
    if (meaning.kind == Kind::Flags) {
        return FlagsIn(value, names);
    }
    const auto found =
        std::find_if(names.begin(), names.end(), [value](const Name& name) { return name.value == value; });
    return found == names.end() ? Number(value) : Json::Value{found->text};
}

}  // namespace

Json::Value Describe(const std::string& call, const std::vector<std::pair<std::string, std::int64_t>>& arguments)
{
    Json::Value described(Json::objectValue);
    for (const auto& [name, number] : arguments) {
        const auto value = static_cast<std::uint64_t>(number);
        const auto meaning =
            std::find_if(meanings.begin(), meanings.end(), [&call, &name = name](const Meaning& candidate) {
                return candidate.argument == name && (candidate.call.empty() || candidate.call == call);
            });
        described[name] = meaning == meanings.end() ? Number(value) : Named(value, *meaning);
    }
    return described;
}

}  // namespace Engine::CallArguments
