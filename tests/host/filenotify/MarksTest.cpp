// SPDX-License-Identifier: Apache-2.0
// What the kernel reports for the marks that are set, without the task's thread: when a process has ended, what it did
// is queued, so nothing here waits.
#include <fcntl.h>
#include <sched.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "host/filenotify/Marks.h"
#include "host/filenotify/Notifier.h"
#include "tests/host/filenotify/NotifyFixture.h"
#include "tests/support/MustRun.h"
#include "tests/support/TemporaryDirectory.h"

namespace {

namespace fs = std::filesystem;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Pair;
using testing::SizeIs;

// The path and the events of a notification.
using Sent = std::pair<std::string, std::uint64_t>;

bool WriteFile(const std::string& path)
{
    std::ofstream file{path};
    file << "text\n";
    file.close();
    return file.good();
}

class MarksTest : public NotifyFixture {
protected:
    void SetUp() override
    {
        CE_REQUIRE(geteuid() == 0, "needs root");
        const std::error_code error = group.Open();
        CE_REQUIRE(!error, "no fanotify: " + error.message());
        // No other process sees the mounts of the test, and they are gone with this one.
        ASSERT_EQ(unshare(CLONE_NEWNS), 0);
        ASSERT_EQ(mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        fs::create_directories(watched + "/sub");
        fs::create_directory(aside);
    }

    void TearDown() override
    {
        while (!mountPoint.empty() && umount2(mountPoint.c_str(), MNT_DETACH) == 0) {
        }
    }

    void Watch(const std::string& text, const std::vector<unsigned int>& masks = {FAN_MODIFY, FAN_CLOSE_WRITE})
    {
        const int number = watches.Add(&subscriber, text, Engine::ParseWatchEntry(text, masks));
        marks.Update(watches);
        EXPECT_FALSE(marks.ErrorOf(number)) << marks.ErrorOf(number).message();
    }

    void Unwatch(const std::string& text)
    {
        watches.Remove(&subscriber, text);
        marks.Update(watches);
    }

    // Runs `action` in a process of that container (empty: of the host) and waits for its end, by which time the kernel
    // has queued all its notifications.
    template <class Action>
    void Run(const std::string& container, const Action& action)
    {
        const pid_t child = fork();
        if (child == 0) {
            _exit(action() ? 0 : 1);
        }
        int status = -1;
        EXPECT_TRUE(waitpid(child, &status, 0) == child && status == 0);
        system.PutInContainer(child, container);
    }

    template <class Action>
    std::vector<Sent> NotifiedOf(const Action& action)
    {
        Run("0123456789ab", action);
        return Notified();
    }

    std::vector<Sent> NotifiedOfWrite(const std::string& path)
    {
        return NotifiedOf([&] { return WriteFile(path); });
    }

    // What the subscriber gets of what is queued.
    std::vector<Sent> Notified()
    {
        std::error_code error;
        while (const std::size_t size = group.Read(buffer, error)) {
            notifier.Handle({buffer.data(), size}, now);
        }
        EXPECT_FALSE(error);
        marks.CloseMounts();
        std::vector<Sent> sent;
        for (const Engine::FileNotifyMessage& message : std::exchange(subscriber.seen, {})) {
            sent.emplace_back(message.GetEventFilePath(), message.GetEventMask());
        }
        return sent;
    }

    // The lines for marks in what the kernel tells of the group (proc_pid_fdinfo(5)).
    std::vector<std::string> KernelMarks() const
    {
        std::ifstream info{"/proc/self/fdinfo/" + std::to_string(group.Descriptor())};
        std::vector<std::string> lines;
        for (std::string line; std::getline(info, line);) {
            if (line.starts_with("fanotify ino") || line.starts_with("fanotify sdev")) {
                lines.push_back(line);
            }
        }
        return lines;
    }

    static constexpr std::uint64_t written = FAN_MODIFY | FAN_CLOSE_WRITE;

    const TemporaryDirectory directory;
    const std::string base = fs::canonical(directory.Path()).string();
    const std::string watched = base + "/watched";
    const std::string aside = base + "/aside";
    std::string mountPoint;  // where the case has mounted something
    Engine::FanotifyGroup group;
    Engine::WatchTable watches;
    Engine::Marks marks{group};
    Engine::Notifier notifier{watches, marks, getpid(), [this](const std::unique_ptr<Engine::AccessBatch>& batch) {
                                  EXPECT_EQ(batch->When(), now.time_since_epoch()) << "when it was read";
                                  Flush(*batch);
                              }};
    std::vector<std::byte> buffer = std::vector<std::byte>(65536);
};

TEST_F(MarksTest, SeesWritesThroughABindMountOfAnotherMountNamespace)
{
    Watch(watched);
    const auto writeThroughMount = [&] {
        return unshare(CLONE_NEWNS) == 0 && mount(watched.c_str(), aside.c_str(), nullptr, MS_BIND, nullptr) == 0 &&
               WriteFile(aside + "/sub/file") && umount2(aside.c_str(), MNT_DETACH) == 0 &&
               WriteFile(aside + "/elsewhere") && WriteFile(watched + "-beside");
    };
    EXPECT_THAT(NotifiedOf(writeThroughMount), ElementsAre(Pair(watched + "/sub/file", written)));
}

TEST_F(MarksTest, AWatchedDirectoryThatIsDeletedIsWatchedAgainAtOnceWhenItComesBack)
{
    Watch(watched);
    fs::remove_all(watched);
    marks.Update(watches);
    fs::create_directory(watched);
    EXPECT_THAT(NotifiedOfWrite(watched + "/before the next look"), SizeIs(1));
    marks.Update(watches);
    EXPECT_THAT(NotifiedOfWrite(watched + "/after it"), SizeIs(1));
}

TEST_F(MarksTest, AFilesystemMountedOnTheWatchedPathIsMarkedAndCanBeUnmounted)
{
    Watch(watched);
    ASSERT_EQ(mount("none", watched.c_str(), "tmpfs", 0, nullptr), 0);
    mountPoint = watched;
    marks.Update(watches);
    EXPECT_THAT(NotifiedOfWrite(watched + "/file"), ElementsAre(Pair(watched + "/file", written)));

    ASSERT_EQ(umount2(watched.c_str(), 0), 0) << "the agent must not keep it busy";
    marks.Update(watches);
    EXPECT_THAT(NotifiedOfWrite(watched + "/sub/file"), ElementsAre(Pair(watched + "/sub/file", written)));
    EXPECT_THAT(KernelMarks(), SizeIs(1));
}

TEST_F(MarksTest, AMountOfAnotherDirectoryOfTheSameFilesystemOnThePathOrBelowIsToldApart)
{
    mountPoint = watched;
    fs::create_directory(aside + "/sub");
    ASSERT_EQ(mount(aside.c_str(), watched.c_str(), nullptr, MS_BIND, nullptr), 0);
    Watch(watched);
    EXPECT_THAT(NotifiedOfWrite(aside + "/sub/file"), ElementsAre(Pair(watched + "/sub/file", written)));
    EXPECT_THAT(NotifiedOfWrite(base + "/beside"), IsEmpty());

    ASSERT_EQ(umount2(watched.c_str(), 0), 0);
    mountPoint = watched + "/sub";
    ASSERT_EQ(mount(aside.c_str(), mountPoint.c_str(), nullptr, MS_BIND, nullptr), 0);
    marks.Update(watches);
    struct stat status {};
    ASSERT_EQ(stat(watched.c_str(), &status), 0);
    const bool holdsData = major(status.st_dev) != 0;  // what lies below counts only then
    EXPECT_THAT(NotifiedOfWrite(aside + "/file"), SizeIs(holdsData ? 1 : 0));
}

TEST_F(MarksTest, AnOverlayIsWatchedDirectoryByDirectory)
{
    ASSERT_EQ(mount("none", aside.c_str(), "tmpfs", 0, nullptr), 0);
    mountPoint = aside;
    for (const char* layer : {"/lower/sub/deep", "/upper", "/work", "/merged"}) {
        fs::create_directories(aside + layer);
    }
    const std::string options = "lowerdir=" + aside + "/lower,upperdir=" + aside + "/upper,workdir=" + aside + "/work";
    const std::string merged = aside + "/merged";
    CE_REQUIRE(mount("overlay", merged.c_str(), "overlay", 0, options.c_str()) == 0, "no overlay filesystem here");
    // Older kernels (6.1) mark no overlay whose handles they cannot open (fanotify_test_fid in
    // fs/notify/fanotify/fanotify_user.c).
    if (::fanotify_mark(group.Descriptor(), FAN_MARK_ADD, FAN_MODIFY, AT_FDCWD, merged.c_str()) != 0) {
        ASSERT_EQ(errno, EOPNOTSUPP);
        const int number = watches.Add(&subscriber, merged, Engine::ParseWatchEntry(merged, {FAN_MODIFY}));
        marks.Update(watches);
        EXPECT_EQ(marks.ErrorOf(number), std::errc::operation_not_supported) << "it must not pass for covered";
        ASSERT_EQ(umount2(merged.c_str(), 0), 0);
        return;
    }
    ASSERT_EQ(::fanotify_mark(group.Descriptor(), FAN_MARK_REMOVE, FAN_MODIFY, AT_FDCWD, merged.c_str()), 0);
    Watch(merged + "/sub");

    EXPECT_THAT(NotifiedOfWrite(merged + "/sub/deep/file"), ElementsAre(Pair(merged + "/sub/deep/file", written)));
    EXPECT_THAT(NotifiedOfWrite(merged + "/beside"), IsEmpty());

    const std::string made = merged + "/sub/made";
    EXPECT_THAT(NotifiedOf([&] { return mkdir(made.c_str(), 0700) == 0; }), IsEmpty());
    marks.Update(watches);
    EXPECT_THAT(NotifiedOfWrite(made + "/file"), ElementsAre(Pair(made + "/file", written)));

    Unwatch(merged + "/sub");
    EXPECT_THAT(KernelMarks(), IsEmpty());
    ASSERT_EQ(umount2(merged.c_str(), 0), 0);
}

TEST_F(MarksTest, AMarkHasTheEventsThatItsWatchesWantAndGoesWithTheLast)
{
    Watch(watched, {FAN_MODIFY});
    Watch(aside + "*/*a", {});
    ASSERT_THAT(KernelMarks(), SizeIs(1)) << "one mark for one filesystem";
    // The kernel adds FAN_EVENT_ON_CHILD, 0x08000000, by itself.
    EXPECT_THAT(KernelMarks().front(), HasSubstr(" mask:48000006 "));

    Unwatch(aside + "*/*a");
    EXPECT_THAT(KernelMarks(), ElementsAre(HasSubstr(" mask:8000002 ")));
    Unwatch(watched);
    EXPECT_THAT(KernelMarks(), IsEmpty());
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
    Counted("notify.overflow");

    const auto writeMany = [&] {
        bool good = true;
        for (int i = 0; i < 20; ++i) {
            good = good && WriteFile(watched + "/" + std::to_string(i));
        }
        return good;
    };
    EXPECT_THAT(NotifiedOf(writeMany), SizeIs(testing::Lt(20U)));
    EXPECT_EQ(Counted("notify.overflow"), 1U);
    EXPECT_THAT(NotifiedOfWrite(watched + "/later"), ElementsAre(Pair(watched + "/later", written)));
}

TEST_F(MarksTest, LossesAreCounted)
{
    notifier.ReadFailed(std::make_error_code(std::errc::too_many_files_open), now);
    notifier.Handle(std::as_bytes(std::span{"no event"}), now);
    EXPECT_EQ(Counted("notify.overflow"), 2U);
    Watch(watched);
    const std::string gone = watched + "/gone";
    EXPECT_THAT(NotifiedOf([&] {
                    return mkdir(gone.c_str(), 0700) == 0 && WriteFile(gone + "/file") && fs::remove_all(gone) == 2;
                }),
                IsEmpty());
    EXPECT_GE(Counted("notify.unresolved"), 1U) << "more when another process deletes on the same filesystem";
}

#ifndef __SANITIZE_ADDRESS__  // its companion for undefined behaviour opens a pipe to look at an object

// On a filesystem of its own, where no process but the test's makes events. Without a free descriptor a look-up is a
// loss.
TEST_F(MarksTest, AccessesOfTheHostCostNoLookUp)
{
    ASSERT_EQ(mount("none", watched.c_str(), "tmpfs", 0, nullptr), 0);
    mountPoint = watched;
    Watch(watched);
    if (!KernelMarks().front().starts_with("fanotify sdev")) {
        GTEST_SKIP() << "this kernel marks no tmpfs, and directories that are marked one by one need no look-up";
    }
    const auto notifiedWithoutDescriptors = [this] {
        rlimit before{};
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &before), 0);
        const rlimit none{0, before.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &none), 0);
        auto sent = Notified();
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &before), 0);
        return sent;
    };
    const auto writeFile = [this] {
        return WriteFile(watched + "/file");
    };
    WriteFile(watched + "/by the agent itself");
    Run("", writeFile);
    EXPECT_THAT(notifiedWithoutDescriptors(), IsEmpty());
    EXPECT_EQ(Counted("notify.read"), 2U);
    EXPECT_EQ(Counted("notify.not_container"), 1U);
    EXPECT_EQ(Counted("notify.overflow"), 0U);
    Run("0123456789ab", writeFile);
    EXPECT_THAT(notifiedWithoutDescriptors(), IsEmpty());
    EXPECT_EQ(Counted("notify.overflow"), 1U);
}

#endif

}  // namespace
