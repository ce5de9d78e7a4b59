// SPDX-License-Identifier: Apache-2.0
#include "host/container/RuntimeSetUp.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "host/ftrace/SyscallProbeLayout.h"

namespace Engine::RuntimeSetUp {

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

// The two ways in which a set-up process is a copy of the runtime: it runs a file without a name (memfd_create(2)), or
// the very file that its parent runs.
bool RunsCopyOfRuntime(SDK::SystemView& system, int tid, int parent)
{
    std::string executable;
    const bool isKnown = system.ExecutablePath(static_cast<unsigned int>(tid), executable) == 0;
    return (isKnown && executable.starts_with("/memfd:")) || (parent > 0 && system.RunSameFile(tid, parent));
}

constexpr std::string_view managers[] = {"/crun", "/youki", "/systemd-nspawn"};
// What stays beside a container that it made, or has had made.
constexpr std::string_view makers[] = {"/crun",   "/youki",           "/systemd-nspawn",         "/runc",
                                       "/conmon", "/containerd-shim", "/containerd-shim-runc-v2"};
// That are told the container's id.
constexpr std::string_view runtimes[] = {"/runc", "/crun", "/youki"};
constexpr int maxGenerations = 64;

// The path of the program that a process runs. A copy that a runtime made of itself has none: of a file in memory, or
// on a mount that is in no namespace (crun). Its first argument stands in then, which for a process of the host is as
// good. Empty when the process has gone.
std::string ProgramOf(SDK::SystemView& system, int pid)
{
    std::string program;
    if (pid <= 0 || system.ExecutablePath(static_cast<unsigned int>(pid), program) != 0) {
        return {};
    }
    if (program == "/" || program.starts_with("/memfd:")) {
        std::string line;
        system.CommandLine(pid, line);
        return std::string{"/"}.append(line, 0, line.find(' '));
    }
    if (constexpr std::string_view replaced = " (deleted)"; program.ends_with(replaced)) {  // proc(5), /proc/<pid>/exe
        program.resize(program.size() - replaced.size());
    }
    return program;
}

template <std::size_t Count>
bool RunsOneOf(SDK::SystemView& system, int pid, const std::string_view (&names)[Count])
{
    const std::string program = ProgramOf(system, pid);
    return std::any_of(std::begin(names), std::end(names),
                       [&](std::string_view name) { return program.ends_with(name); });
}

// -1 when it has gone.
int ParentOf(SDK::SystemView& system, int pid)
{
    const auto stat = system.StatOf(pid);
    return stat ? stat->parent : -1;
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

// An image's entry point may be called /proc/self/exe, so the process must also have the host's mount namespace still.
// One that has gone already cannot be asked. Runtimes do have helpers that live a millisecond, but these execute
// themselves before they fork, not in the child that becomes the container's program: a child that does so and is gone
// at once is an attacker's entry point, which has no need to live longer.
bool Continues(SDK::SystemView& system, int pid, std::string_view filename, bool bornInSetUp, unsigned int place)
{
    if (!IsSelfExecution(filename)) {
        return false;
    }
    return (place & CE_PLACE_KNOWN) != 0 ? (place & CE_OTHER_MOUNTS) == 0
                                         : system.HasHostMounts(pid).value_or(!bornInSetUp);
}

bool HasLeftHost(SDK::SystemView& system, int pid)
{
    return !system.HasHostRoot(pid).value_or(true) && !system.HasHostMounts(pid).value_or(true);
}

std::optional<int> MakerOf(SDK::SystemView& system, int pid)
{
    if (!HasLeftHost(system, pid)) {
        return std::nullopt;
    }
    for (int generation = 0; generation < maxGenerations; ++generation) {
        pid = ParentOf(system, pid);
        if (!HasLeftHost(system, pid)) {
            return pid == 1 || RunsOneOf(system, pid, makers) ? std::optional{pid} : std::nullopt;
        }
    }
    return std::nullopt;
}

std::string IdGivenTo(SDK::SystemView& system, int pid)
{
    std::string line;
    if (!RunsOneOf(system, pid, runtimes) || system.CommandLine(pid, line) != 0) {
        return {};
    }
    const bool makesContainer = line.find(" create ") != std::string::npos || line.find(" run ") != std::string::npos;
    const std::string id = line.substr(line.rfind(' ') + 1);
    const bool isPlain = std::all_of(id.begin(), id.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '+' ||
               c == '-' || c == '.';
    });
    return makesContainer && isPlain ? id : std::string{};
}

bool IsVisitor(SDK::SystemView& system, int pid)
{
    return system.HasHostRoot(pid).value_or(false) && system.HasHostMounts(pid).value_or(false) &&
           !RunsOneOf(system, ParentOf(system, pid), makers);
}

bool IsMaker(SDK::SystemView& system, int pid)
{
    return RunsOneOf(system, pid, makers);
}

bool IsManager(SDK::SystemView& system, int pid)
{
    return pid == 1 || (RunsOneOf(system, pid, managers) && system.HasHostRoot(pid).value_or(false));
}

ContainerTable::State StateOf(SDK::SystemView& system, int tid, int parent, bool parentIsInside)
{
    return !parentIsInside && RunsCopyOfRuntime(system, tid, parent) ? ContainerTable::State::Entering
                                                                     : ContainerTable::State::Inside;
}

std::optional<Found> Look(SDK::SystemView& system, const ContainerGroups& groups, int tid)
{
    const auto of = system.Cgroups(tid);
    if (!of) {
        return std::nullopt;
    }
    Found found{ContainerTable::State::Host, groups.Find(*of), ParentOf(system, tid)};
    if (!found.container.empty()) {
        const auto ofParent = system.Cgroups(found.parent);
        found.state = StateOf(system, tid, found.parent, !ofParent || !groups.Find(*ofParent).empty());
    }
    return found;
}

}  // namespace Engine::RuntimeSetUp
