// SPDX-License-Identifier: Apache-2.0
// The module in the framework, with its thread, on the real kernel.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/fanotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <mutex>

#include "framework/Engine.h"
#include "host/filenotify/FanotifyGroup.h"
#include "host/filenotify/FileNotifyModule.h"
#include "messages/FileNotifyMessages.h"
#include "tests/host/filenotify/ContainerProcess.h"
#include "tests/support/MustRun.h"

namespace {

namespace fs = std::filesystem;

class Subscriber : public Framework::Task, public Engine::AbstractMessageReceiver {
public:
    Subscriber() : Task("subscriber", "", Framework::TaskCondition::EventLoop, 1024) {}

    int FileNotifyMessageAction(Engine::FileNotifyMessage* message) override
    {
        const std::lock_guard lock(mutex);
        pids[message->GetEventFilePath()] = message->GetEventProcessId();
        arrived.notify_all();
        return 0;
    }

    // The process that accessed the path; waits for the notification.
    unsigned int AccessOf(const std::string& path)
    {
        std::unique_lock lock(mutex);
        arrived.wait_for(lock, std::chrono::minutes{1}, [&] { return pids.count(path) != 0; });
        return pids[path];
    }
    bool HasSeen(const std::string& path)
    {
        const std::lock_guard lock(mutex);
        return pids.count(path) != 0;
    }

private:
    std::mutex mutex;
    std::condition_variable arrived;
    std::map<std::string, unsigned int> pids;
};

class SubscriberModule : public Framework::Module {
public:
    explicit SubscriberModule(Subscriber& subscriber) : Module("subscriber_module"), subscriber(subscriber) {}
    int Init() override { return RegisterTask(&subscriber, false); }

private:
    Subscriber& subscriber;
};

class FileNotifyTaskTest : public testing::Test {
protected:
    void SetUp() override
    {
        CE_REQUIRE(geteuid() == 0 && !Engine::FanotifyGroup{}.Open(), "no fanotify here, or not for this user");
        std::string pattern = (fs::temp_directory_path() / "filenotify-test-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        base = fs::canonical(pattern).string();
        system.Put(getpid(), {{1, "test"}, "", "", {}});
        ASSERT_TRUE(agent.AddModule(std::make_unique<Engine::FileNotifyModule>()));
        ASSERT_TRUE(agent.AddModule(std::make_unique<SubscriberModule>(subscriber)));
    }
    void TearDown() override
    {
        agent.Stop();
        fs::remove_all(base);
    }

    int Send(Engine::FileNotifyWatchMessage* message)
    {
        std::string reply;
        return subscriber.SyncSendDirectMsg("filenotify_task", message, reply, 60'000, 2);
    }
    int Watch(const std::string& text, const std::vector<unsigned int>& masks, const _FileNotifyOpt& options = {})
    {
        return Send(new Engine::FileNotifyWatchMessage(&subscriber, text, masks, options));
    }
    int Withdraw(const std::string& text) { return Send(new Engine::FileNotifyWatchMessage(&subscriber, text, false)); }

    // From a process of a container. System calls only: the agent's threads run.
    bool Write(const std::string& path)
    {
        return Support::RunInContainer(system, [&] {
            const int file = open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600);
            return write(file, "x", 1) == 1 && close(file) == 0;
        });
    }

    Support::FakeSystem system;
    Framework::Engine agent;
    Subscriber subscriber;
    std::string base;
};

TEST_F(FileNotifyTaskTest, DeliversToTheSubscriberUntilTheWatchIsWithdrawn)
{
    ASSERT_EQ(Watch(base, {FAN_MODIFY, FAN_CLOSE_WRITE}), 0);
    ASSERT_TRUE(Write(base + "/first"));
    EXPECT_NE(subscriber.AccessOf(base + "/first"), 0U);

    ASSERT_EQ(Withdraw(base), 0);
    ASSERT_TRUE(Write(base + "/unwatched"));
    ASSERT_EQ(Watch(base, {FAN_MODIFY}), 0);
    ASSERT_TRUE(Write(base + "/last"));
    EXPECT_NE(subscriber.AccessOf(base + "/last"), 0U);
    EXPECT_FALSE(subscriber.HasSeen(base + "/unwatched"));
}

TEST_F(FileNotifyTaskTest, AWatchThatCannotBeSetIsRefused)
{
    _FileNotifyOpt existing;
    existing.existingOnly = true;
    EXPECT_NE(Watch(base, {FAN_OPEN_PERM}), 0);
    EXPECT_NE(Watch(base + "*/*q", {FAN_MODIFY}), 0);
    EXPECT_NE(Watch(base + "/missing", {FAN_MODIFY}, existing), 0);
    EXPECT_NE(Withdraw(base), 0);
}

TEST_F(FileNotifyTaskTest, AMissingPathIsWaitedFor)
{
    ASSERT_EQ(Watch(base + "/later", {FAN_MODIFY}), 0);
    fs::create_directory(base + "/later");
    ASSERT_TRUE(Write(base + "/later/file"));
    EXPECT_NE(subscriber.AccessOf(base + "/later/file"), 0U);
}

}  // namespace
