// SPDX-License-Identifier: Apache-2.0
// What the kernel reports for the marks that are set, without the task's thread: when a process has ended, what it did
// is queued, so nothing here waits.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "host/filenotify/MarkKeeper.h"
#include "host/filenotify/Notifier.h"
#include "tests/host/filenotify/ContainerProcess.h"
#include "tests/host/filenotify/Subscriber.h"
#include "tests/support/MustRun.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;

// The path and the events of a notification.
using Sent = std::pair<std::string, std::uint64_t>;

class MarksTest : public testing::Test {
protected:
    void SetUp() override
    {
        CE_REQUIRE(geteuid() == 0, "needs root");
        const std::error_code error = group.Open();
        CE_REQUIRE(!error, "no fanotify: " + error.message());
        // Mounts of the test are nobody else's, and are gone with the process.
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        ASSERT_EQ(mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        std::string pattern = (fs::temp_directory_path() / "filenotify-test-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        base = fs::canonical(pattern).string();
        watched = base + "/watched";
        ASSERT_TRUE(fs::create_directories(watched + "/sub"));
        fs::create_directory(base + "/aside");
        system.Put(getpid(), {{1, "test"}, "", "", {}});
    }

    void TearDown() override
    {
        while (!mountPoint.empty() && umount2(mountPoint.c_str(), MNT_DETACH) == 0) {
        }
        if (!base.empty()) {
            fs::remove_all(base);
        }
    }

    int Watch(const std::string& text, const std::vector<unsigned int>& masks = {FAN_MODIFY, FAN_CLOSE_WRITE})
    {
        const int number = watches.Add(nullptr, text, Engine::ParseWatchEntry(text, masks), {}).number;
        keeper.Update(watches);
        EXPECT_FALSE(keeper.ErrorOf(number)) << keeper.ErrorOf(number).message();
        return number;
    }

    // What the subscribers got since the last call.
    std::vector<Sent> Notified()
    {
        std::error_code error;
        while (const std::size_t size = group.Read(buffer, error)) {
            notifier.Handle({buffer.data(), size}, now);
        }
        EXPECT_FALSE(error);
        keeper.CloseMounts();
        std::vector<Sent> sent;
        for (const Engine::FileNotifyMessage& message : subscriber.Take()) {
            sent.emplace_back(message.GetEventFilePath(), message.GetEventMask());
        }
        return sent;
    }

    template <class Action>
    std::vector<Sent> NotifiedOf(const Action& action)
    {
        EXPECT_TRUE(Support::RunInContainer(system, action));
        return Notified();
    }

    std::vector<Sent> NotifiedOfWrite(const std::string& path)
    {
        return NotifiedOf([&] { return Support::WriteFile(path); });
    }

    // The lines for marks in what the kernel tells of the group (proc_pid_fdinfo(5)).
    std::vector<std::string> Marks() const
    {
        std::ifstream info{"/proc/self/fdinfo/" + std::to_string(group.Descriptor())};
        std::vector<std::string> marks;
        for (std::string line; std::getline(info, line);) {
            if (line.starts_with("fanotify ino") || line.starts_with("fanotify sdev")) {
                marks.push_back(line);
            }
        }
        return marks;
    }

    static constexpr std::uint64_t written = FAN_MODIFY | FAN_CLOSE_WRITE;

    Support::FakeSystem system;
    Engine::FanotifyGroup group;
    Engine::WatchTable watches;
    Engine::MarkKeeper keeper{group};
    Subscriber subscriber;
    Engine::Notifier notifier{watches, keeper, getpid(), [this](const std::unique_ptr<Engine::AccessBatch>& batch) {
                                  batch->OnFlushed([this](auto&, const std::unique_ptr<Framework::Message>& message) {
                                      subscriber.Handle(*message);
                                      return Engine::Sending::Accepted;
                                  });
                              }};
    std::vector<std::byte> buffer = std::vector<std::byte>(65536);
    Engine::Notifier::TimePoint now{std::chrono::hours{1}};
    std::string base;
    std::string watched;
    std::string mountPoint;  // where the case has mounted something
};

TEST_F(MarksTest, SeesWritesThroughABindMountOfAnotherMountNamespace)
{
    Watch(watched);
    const std::string inside = base + "/aside";
    const auto writeThroughMount = [&] {
        return unshare(CLONE_NEWNS) == 0 && mount(watched.c_str(), inside.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
               Support::WriteFile(inside + "/sub/file") && umount2(inside.c_str(), MNT_DETACH) == 0 &&
               Support::WriteFile(inside + "/elsewhere") && Support::WriteFile(watched + "-beside");
    };
    EXPECT_THAT(NotifiedOf(writeThroughMount), ElementsAre(Pair(watched + "/sub/file", written)));
}

TEST_F(MarksTest, AWatchedDirectoryThatIsDeletedIsWatchedAgainAtOnceWhenItComesBack)
{
    Watch(watched);
    fs::remove_all(watched);
    keeper.Update(watches);
    fs::create_directory(watched);
    EXPECT_THAT(NotifiedOfWrite(watched + "/before the next look"), testing::SizeIs(1));
    keeper.Update(watches);
    EXPECT_THAT(NotifiedOfWrite(watched + "/after it"), testing::SizeIs(1));
}

TEST_F(MarksTest, AFilesystemMountedOnTheWatchedPathIsMarkedAndCanBeUnmounted)
{
    Watch(watched);
    ASSERT_EQ(mount("none", watched.c_str(), "tmpfs", 0, nullptr), 0);
    mountPoint = watched;
    keeper.Update(watches);
    EXPECT_THAT(NotifiedOfWrite(watched + "/file"), ElementsAre(Pair(watched + "/file", written)));

    ASSERT_EQ(umount2(watched.c_str(), 0), 0) << "the agent must not keep it busy";
    keeper.Update(watches);
    EXPECT_THAT(NotifiedOfWrite(watched + "/sub/file"), ElementsAre(Pair(watched + "/sub/file", written)));
    EXPECT_THAT(Marks(), testing::SizeIs(1));
}

TEST_F(MarksTest, AMountOfAnotherDirectoryOfTheSameFilesystemIsToldApart)
{
    mountPoint = watched;
    fs::create_directory(base + "/aside/sub");
    ASSERT_EQ(mount((base + "/aside").c_str(), watched.c_str(), nullptr, MS_BIND, nullptr), 0);
    Watch(watched);
    EXPECT_THAT(NotifiedOfWrite(base + "/aside/sub/file"), ElementsAre(Pair(watched + "/sub/file", written)));
    EXPECT_THAT(NotifiedOfWrite(base + "/beside"), IsEmpty());
}

TEST_F(MarksTest, AnOverlayIsWatchedDirectoryByDirectory)
{
    const std::string layers = base + "/aside";
    ASSERT_EQ(mount("none", layers.c_str(), "tmpfs", 0, nullptr), 0);
    mountPoint = layers;
    for (const char* layer : {"/lower/sub/deep", "/upper", "/work", "/merged"}) {
        fs::create_directories(layers + layer);
    }
    const std::string options =
        "lowerdir=" + layers + "/lower,upperdir=" + layers + "/upper,workdir=" + layers + "/work";
    const std::string merged = layers + "/merged";
    CE_REQUIRE(mount("overlay", merged.c_str(), "overlay", 0, options.c_str()) == 0, "no overlay filesystem here");
    // Older kernels (6.1) mark no overlay whose handles they cannot open (fanotify_test_fid in
    // fs/notify/fanotify/fanotify_user.c).
    if (::fanotify_mark(group.Descriptor(), FAN_MARK_ADD, FAN_MODIFY, AT_FDCWD, merged.c_str()) != 0) {
        ASSERT_EQ(errno, EOPNOTSUPP);
        const int number = watches.Add(nullptr, merged, Engine::ParseWatchEntry(merged, {FAN_MODIFY}), {}).number;
        keeper.Update(watches);
        EXPECT_EQ(keeper.ErrorOf(number), std::errc::operation_not_supported) << "nobody would know";
        ASSERT_EQ(umount2(merged.c_str(), 0), 0);
        return;
    }
    ASSERT_EQ(::fanotify_mark(group.Descriptor(), FAN_MARK_REMOVE, FAN_MODIFY, AT_FDCWD, merged.c_str()), 0);
    Watch(merged + "/sub");

    EXPECT_THAT(NotifiedOfWrite(merged + "/sub/deep/file"), ElementsAre(Pair(merged + "/sub/deep/file", written)));
    EXPECT_THAT(NotifiedOfWrite(merged + "/beside"), IsEmpty());

    const std::string made = merged + "/sub/made";
    EXPECT_THAT(NotifiedOf([&] { return mkdir(made.c_str(), 0700) == 0; }), IsEmpty());
    keeper.Update(watches);
    EXPECT_THAT(NotifiedOfWrite(made + "/file"), ElementsAre(Pair(made + "/file", written)));

    watches.Remove(nullptr, merged + "/sub");
    keeper.Update(watches);
    EXPECT_THAT(Marks(), IsEmpty());
    ASSERT_EQ(umount2(merged.c_str(), 0), 0);
}

TEST_F(MarksTest, AMarkHasTheEventsThatItsWatchesWantAndGoesWithTheLast)
{
    Watch(watched, {FAN_MODIFY});
    Watch(base + "/aside*/*a", {});
    ASSERT_THAT(Marks(), testing::SizeIs(1)) << "one mark for one filesystem";
    // The kernel adds FAN_EVENT_ON_CHILD, 0x08000000, by itself.
    EXPECT_THAT(Marks().front(), HasSubstr(" mask:48000006 "));

    watches.Remove(nullptr, base + "/aside*/*a");
    keeper.Update(watches);
    EXPECT_THAT(Marks(), ElementsAre(HasSubstr(" mask:8000002 ")));
    watches.Remove(nullptr, watched);
    keeper.Update(watches);
    EXPECT_THAT(Marks(), IsEmpty());
}

// A group takes the bound of its queue when it is opened (fanotify(7)), so the system's is changed for that moment
// only.
TEST_F(MarksTest, AnOverflowIsCountedAndTheSourceGoesOn)
{
    const std::string bound = "/proc/sys/fs/fanotify/max_queued_events";
    std::string before;
    std::ifstream{bound} >> before;
    std::ofstream{bound} << "4";
    const std::error_code error = group.Open();
    std::ofstream{bound} << before;
    ASSERT_FALSE(error);
    Watch(watched);
    const auto overflows = SDK::Counters::Get("notify.overflow").load();

    const auto writeMany = [&] {
        bool good = true;
        for (int i = 0; i < 20; ++i) {
            good = good && Support::WriteFile(watched + "/" + std::to_string(i));
        }
        return good;
    };
    EXPECT_THAT(NotifiedOf(writeMany), testing::SizeIs(testing::Lt(20U)));
    EXPECT_EQ(SDK::Counters::Get("notify.overflow"), overflows + 1);
    EXPECT_THAT(NotifiedOfWrite(watched + "/later"), ElementsAre(Pair(watched + "/later", written)));
}

}  // namespace
