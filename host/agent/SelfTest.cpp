// SPDX-License-Identifier: Apache-2.0
#include "host/agent/SelfTest.h"

#include <fcntl.h>
#include <json/json.h>
#include <mntent.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <span>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <vector>

#include "host/agent/Agent.h"
#include "host/agent/Machine.h"
#include "host/sdk/ExceptionRule.h"
#include "host/sdk/FileDescriptor.h"
#include "sdk/JsonUtils.h"

namespace Agent {

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

constexpr auto patience = 3s;
constexpr int guesses = 400;  // of file handles: 300 in a second are no attack yet
// No policy lists it: where another agent alarms once an hour for each call on the host, the test does not take its
// turn.
constexpr char listedCall[] = "getppid";
constexpr mode_t ownersAlone = 0700;

// Those that see the attack.
constexpr auto expected = std::span{SDK::detectors}.first<4>();  // the last one looks only once in a while

std::runtime_error Failure(const std::string& what)
{
    return std::runtime_error(what + ": " + std::strerror(errno));
}

// A folder that goes with this.
class Folder {
public:
    Folder()
    {
        if (::mkdtemp(path.data()) == nullptr) {
            throw Failure("cannot make a folder " + path);
        }
    }
    Folder(const Folder&) = delete;
    Folder& operator=(const Folder&) = delete;
    ~Folder()
    {
        std::error_code ignored;
        fs::remove_all(path, ignored);
    }

    std::string operator/(const char* name) const { return path + "/" + name; }

private:
    std::string path = fs::temp_directory_path() / "containerescape-selftest.XXXXXX";
};

// Control groups that are named like a container's, one in each hierarchy that allows it. They go with this.
class Groups {
public:
    Groups()
    {
        std::FILE* const mounts = ::setmntent("/proc/self/mounts", "re");
        while (const mntent* mount = mounts == nullptr ? nullptr : ::getmntent(mounts)) {
            const std::string_view type{mount->mnt_type};
            const std::string path = std::string(mount->mnt_dir) + "/selftest-" + selfTestContainer + ".scope";
            if ((type == "cgroup" || type == "cgroup2") &&
                (::mkdir(path.c_str(), ownersAlone) == 0 || errno == EEXIST)) {
                paths.insert(path);
            }
        }
        if (mounts != nullptr) {
            ::endmntent(mounts);
        }
    }
    Groups(const Groups&) = delete;
    Groups& operator=(const Groups&) = delete;
    ~Groups()
    {
        for (const std::string& path : paths) {
            ::rmdir(path.c_str());
        }
    }

    // Some take no process, such as those of version 1 for CPU sets. Throws when none does.
    void Take(pid_t process) const
    {
        bool isTaken = false;
        for (const std::string& path : paths) {
            const bool isIn = (std::ofstream(path + "/cgroup.procs") << process << std::flush).good();
            isTaken = isTaken || isIn;
        }
        if (!isTaken) {
            throw std::runtime_error("no control group can be made and entered: start it as root on the host");
        }
    }

private:
    std::set<std::string> paths;
};

// Another program in the groups: a container is known by what is executed in it. It waits until it is there.
void AttackFrom(const Groups& groups, const std::string& directory)
{
    std::array<int, 2> ends{};
    if (::pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw Failure("cannot make a pipe");
    }
    const SDK::FileDescriptor waiting(ends[0]);
    SDK::FileDescriptor go(ends[1]);
    const std::string program = fs::read_symlink("/proc/self/exe");
    const pid_t attacker = ::fork();
    if (attacker == 0) {  // one thread of several was copied: nothing but system calls from here on
        char byte = 0;
        const bool isTold = ::read(waiting.Get(), &byte, 1) == 1;
        if (isTold) {
            ::execl(program.c_str(), program.c_str(), "selftest-attack", directory.c_str(), nullptr);
        }
        ::_exit(failed);
    }
    if (attacker < 0) {
        throw Failure("cannot start the attack");
    }
    std::string problem;
    try {
        groups.Take(attacker);
        problem = ::write(go.Get(), "", 1) == 1 ? "" : "the attack does not start";
    } catch (const std::exception& refusal) {
        problem = refusal.what();
    }
    go.Reset();  // without a byte it ends
    int status = 0;
    ::waitpid(attacker, &status, 0);
    if (!problem.empty() || !WIFEXITED(status) || WEXITSTATUS(status) != cleanStop) {
        throw std::runtime_error(problem.empty() ? "the attack failed" : problem);
    }
}

// Those of the attack that are in the file.
std::set<std::string> Raised(const std::string& alarmsFile)
{
    std::set<std::string> names;
    std::ifstream lines(alarmsFile);
    for (std::string line; std::getline(lines, line);) {
        Json::Value alarm;
        if (SDK::JsonUtils::ParseJsonStr(line.data(), line.size(), alarm) == 0 &&
            alarm["resource_info"]["container_id"] == selfTestContainer) {
            names.insert(alarm["event_name"].asString());
        }
    }
    return names;
}

std::string PolicyOn(const std::string& directory)
{
    Json::Value policy;
    Json::Value& content = policy["content"];
    content["image_white_namelist"] = Json::Value(Json::arrayValue);
    Json::Value& detection = content["container_escape_detect_task"];
    detection["highrisk_calls"].append(listedCall);
    detection["host_directorys"].append(directory);
    detection["scope"] = "container";
    return SDK::JsonUtils::JsonToString(policy);
}

// The names of the alarms that came.
std::set<std::string> Try(Options options)
{
    const Folder folder;
    const std::string watched = folder / "watched";
    options.policyFile = folder / "policy.json";
    options.alarmsFile = folder / "alarms.json";
    if (::mkdir(watched.c_str(), ownersAlone) != 0 ||
        !(std::ofstream(options.policyFile) << PolicyOn(watched)).good()) {
        throw Failure("cannot write to " + watched);
    }
    StartPlan plan = MakePlan(options);
    if (const std::string reason = WhyNotHere(); !reason.empty()) {
        throw BadInput(reason);
    }
    std::set<std::string> raised;
    const Progress progress;
    HostAgent(std::move(plan)).Try([&] {
        Progress::Show("attacking, and waiting for the alarms");
        const Groups groups;
        AttackFrom(groups, watched);
        const auto end = std::chrono::steady_clock::now() + patience;
        while (raised.size() < expected.size() && std::chrono::steady_clock::now() < end) {
            std::this_thread::sleep_for(10ms);
            raised = Raised(options.alarmsFile);
        }
    });
    return raised;
}

}  // namespace

ExitCode SelfTest(const Options& options)
{
    std::set<std::string> raised;
    try {
        raised = Try(options);
    } catch (const std::exception& problem) {
        Say(problem.what());
        return badInput;
    }
    ExitCode code = cleanStop;
    for (const SDK::Detector& detector : expected) {
        const bool isSeen = raised.contains(detector.alarm);
        std::printf("%s: %s\n", detector.name, isSeen ? "alarm" : "NO ALARM");
        code = isSeen ? code : failed;
    }
    return std::fflush(stdout) == 0 ? code : failed;
}

ExitCode Attack(const std::string& directory)
{
    std::error_code ignored;
    for (int listing = 0; listing < 2; ++listing) {
        static_cast<void>(fs::directory_iterator{"/", ignored});
    }
    file_handle none{};  // of no bytes: the kernel refuses it, after it has seen the call
    for (int guess = 0; guess < guesses; ++guess) {
        ::syscall(SYS_open_by_handle_at, AT_FDCWD, &none, O_PATH);
    }
    ::syscall(SYS_getppid);
    return (std::ofstream(directory + "/file") << "x").good() ? cleanStop : failed;
}

}  // namespace Agent
