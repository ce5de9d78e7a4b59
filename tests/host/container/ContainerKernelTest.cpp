// SPDX-License-Identifier: Apache-2.0
// The two plug-ins with the running kernel: a process that is put into a made-up container's control group.
#include <gmock/gmock.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "framework/Engine.h"
#include "messages/ContainerMessages.h"
#include "messages/FtraceMessages.h"
#include "sdk/ProcessUtils.h"
#include "tests/support/MustRun.h"

namespace {

constexpr char umaskEvent[] = "syscalls:sys_enter_umask";

// A group that carries a container's id, in a hierarchy of the first or the second version.
class Group {
public:
    Group()
    {
        for (const char* root : {"/sys/fs/cgroup/pids/", "/sys/fs/cgroup/unified/", "/sys/fs/cgroup/"}) {
            const std::string candidate = root + id;
            if (::mkdir(candidate.c_str(), 0755) == 0) {
                if (::access((candidate + "/cgroup.procs").c_str(), W_OK) == 0) {
                    path = candidate;
                    return;
                }
                ::rmdir(candidate.c_str());
            }
        }
    }
    Group(const Group&) = delete;
    Group& operator=(const Group&) = delete;
    ~Group()
    {
        if (!path.empty()) {
            ::rmdir(path.c_str());
        }
    }

    bool IsThere() const { return !path.empty(); }
    bool Put(int pid) const { return static_cast<bool>(std::ofstream(path + "/cgroup.procs") << pid << std::flush); }

    const std::string id =
        "cafe" + std::string(60 - std::to_string(::getpid()).size(), '0') + std::to_string(::getpid());

private:
    std::string path;
};

// Writes down what it gets: "+pid" and "-pid" for notices, "umask pid" for calls.
class Listener : public Framework::Task,
                 public Engine::AbstructMessage<Engine::FtraceMessage>::Receiver,
                 public Engine::AbstructMessage<Engine::ContainerProcMessage>::Receiver {
public:
    Listener() : Task("listener", "", Framework::TaskCondition::EventLoop, 4096) {}

    int Init() override
    {
        SendDirectMsg("container_collect_task", new Engine::ContainerRegisterMessage(this, false, true));
        std::string reply;
        for (const auto& [system, event] :
             {std::pair{"sched", "sched_process_fork"}, {"syscalls", "sys_enter_umask"}}) {
            SyncSendDirectMsg("ftrace_task", new Engine::FtraceWatchMessage(this, system, event, false), reply, 20'000,
                              2);
        }
        return 0;
    }
    int Run() override
    {
        Waiter().WaitAndHandleEvent(1000, 16);
        BulkConsumeMsg(1024);
        return 0;
    }
    int UnInit() override
    {
        SendDirectMsg("container_collect_task", new Engine::ContainerRegisterMessage(this, false, false));
        return 0;
    }
    int Receive(const Engine::FtraceMessage& event) override
    {
        if (event.name() == umaskEvent) {
            const auto caller = event.get_number("common_pid");
            const auto parent = parents.find(caller);
            Note("umask " + std::to_string(caller));
            Note("umask in a child of " + std::to_string(parent == parents.end() ? 0 : parent->second));
        } else {
            const auto parent = event.get_number("parent_pid");
            parents[event.get_number("child_pid")] = parent;
            std::string id;
            SDK::ProcessUtils::GetContainerID(static_cast<int>(parent), id);
            Note("fork " + std::to_string(parent) + " " + id);
        }
        return 0;
    }
    int Receive(const Engine::ContainerProcMessage& notice) override
    {
        Note((notice.started ? "+" : "-") + std::to_string(notice.info->pid) + " " + notice.info->containerId + " " +
             notice.info->executable);
        return 0;
    }

    // Waits until `note` has come; the limit is for a case that fails.
    bool Await(const std::string& note)
    {
        std::unique_lock lock{mutex};
        return changed.wait_for(lock, std::chrono::seconds{30},
                                [&] { return std::find(notes.begin(), notes.end(), note) != notes.end(); });
    }
    std::ptrdiff_t PlaceOf(const std::string& note)
    {
        const std::lock_guard lock{mutex};
        return std::find(notes.begin(), notes.end(), note) - notes.begin();
    }
    std::ptrdiff_t Count(const std::string& note)
    {
        const std::lock_guard lock{mutex};
        return std::count(notes.begin(), notes.end(), note);
    }

private:
    void Note(const std::string& note)
    {
        const std::lock_guard lock{mutex};
        notes.push_back(note);
        changed.notify_all();
    }

    std::map<std::int64_t, std::int64_t> parents;  // task's thread only
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> notes;
};

class ListenerModule : public Framework::Module {
public:
    ListenerModule() : Module("listener_module") {}
    int Init() override
    {
        RegisterTask(&listener, false);
        return Module::Init();
    }
    int UnInit() override
    {
        UnRegisterTask("listener");
        return Module::UnInit();
    }
    Listener listener;
};

// A child of this process that waits until it is let go, calls umask(2) as a runtime's set-up might, and then runs a
// shell that calls it in a child of its own.
class Child {
public:
    Child()
    {
        if (::pipe(gate) != 0) {
            return;
        }
        pid = ::fork();
        if (pid == 0) {
            char byte = 0;
            ::close(gate[1]);  // or it would wait for itself when it is not let go
            if (::read(gate[0], &byte, 1) == 1) {
                ::umask(022);
                ::execl("/bin/sh", "sh", "-c", "(umask) >/dev/null; exit 0", nullptr);
            }
            ::_exit(1);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    ~Child()
    {
        ::close(gate[0]);
        ::close(gate[1]);
        ::waitpid(pid, nullptr, 0);
    }

    int LetGoAndWait()
    {
        int status = -1;
        if (::write(gate[1], "x", 1) == 1) {
            ::waitpid(pid, &status, 0);
        }
        return status;
    }

    int pid = -1;

private:
    int gate[2] = {-1, -1};
};

TEST(ContainerKernelTest, ShortLivedProcessIsAnnouncedBeforeItsFirstEvent)
{
    const Group group;
    CE_REQUIRE(::access("/sys/kernel/tracing/instances", W_OK) == 0, "needs root and tracefs");
    CE_REQUIRE(group.IsThere(), "needs control groups that can be made");

    Framework::Engine agent;
    agent.config().setString("docker.socket", "/nonexistent/docker.sock");
    std::string error;
    ASSERT_TRUE(agent.LoadModule(CE_MODULE_DIR "/libftrace_module.so", error)) << error;
    ASSERT_TRUE(agent.LoadModule(CE_MODULE_DIR "/libcontainer_module.so", error)) << error;
    auto module = std::make_unique<ListenerModule>();
    Listener& listener = module->listener;
    ASSERT_TRUE(agent.AddModule(std::move(module)));
    ASSERT_EQ(agent.WaitStarted("listener", std::chrono::seconds{60}), Framework::Engine::StartResult::Running);

    Child host;
    EXPECT_EQ(host.LetGoAndWait(), 0);
    Child inside;
    ASSERT_TRUE(group.Put(inside.pid));
    EXPECT_EQ(inside.LetGoAndWait(), 0);
    Child last;
    ASSERT_TRUE(group.Put(last.pid));
    EXPECT_EQ(last.LetGoAndWait(), 0);

    const std::string announced = "+" + std::to_string(inside.pid) + " " + group.id + " /bin/sh";
    const std::string forked = "fork " + std::to_string(inside.pid) + " " + group.id;
    ASSERT_TRUE(listener.Await(announced));
    ASSERT_TRUE(listener.Await(forked)) << "the process is long gone when this is asked";
    ASSERT_TRUE(listener.Await("fork " + std::to_string(last.pid) + " " + group.id));
    EXPECT_TRUE(listener.Await("umask in a child of " + std::to_string(inside.pid)));
    EXPECT_LT(listener.PlaceOf(announced), listener.PlaceOf(forked));
    EXPECT_EQ(listener.Count(announced), 1);
    EXPECT_EQ(listener.Count("umask " + std::to_string(inside.pid)), 0) << "set-up is not the container's doing";
    EXPECT_EQ(listener.Count("umask " + std::to_string(host.pid)), 0);
    EXPECT_TRUE(listener.Await("-" + std::to_string(inside.pid) + " " + group.id + " "));
}

}  // namespace
