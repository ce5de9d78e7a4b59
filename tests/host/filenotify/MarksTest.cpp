// SPDX-License-Identifier: Apache-2.0
// What the kernel reports for the marks that are set, without the task's thread: when a process has ended, what it did
// is queued, so nothing here waits.
#include <fcntl.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "host/sdk/Impairments.h"
#include "host/sdk/Limits.h"
#include "tests/host/filenotify/MarksFixture.h"

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Matcher;
using testing::SizeIs;
using Paths = std::vector<std::string>;

TEST_F(MarksTest, WhatIsAtTheWatchedPathIsWatchedAlsoWhenItWasDeletedOrMountedOver)
{
    ASSERT_FALSE(Watch(aside + "*/*a"));
    ASSERT_FALSE(Watch(watched));
    // The kernel adds FAN_EVENT_ON_CHILD, 0x08000000, by itself.
    EXPECT_THAT(KernelMarks(), HasSubstr(" mask:4800000e "));
    watches.Remove(&subscriber, aside + "*/*a");
    fs::remove_all(watched);
    marks.Update(watches);
    fs::create_directories(watched + "/sub");
    EXPECT_THAT(NotifiedOfWrite(watched + "/before the next look"), SizeIs(1));
    marks.Update(watches);
    EXPECT_THAT(NotifiedOfWrite(watched + "/after it"), SizeIs(1));

    ASSERT_EQ(mount("none", watched.c_str(), "tmpfs", 0, nullptr), 0);
    marks.Update(watches);
    EXPECT_THAT(NotifiedOfWrite(watched + "/file"), ElementsAre(watched + "/file"));
    ASSERT_EQ(umount2(watched.c_str(), 0), 0) << "the agent must not keep it busy";
    marks.Update(watches);
    EXPECT_THAT(NotifiedOfWrite(watched + "/sub/file"), ElementsAre(watched + "/sub/file"));
    EXPECT_THAT(KernelMarks(), HasSubstr(" mask:800000a "));
}

TEST_F(MarksTest, AMountOfAnotherDirectoryOfTheSameFilesystemOnThePathOrBelowIsToldApart)
{
    ASSERT_EQ(mount(aside.c_str(), watched.c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_FALSE(Watch(watched));
    EXPECT_THAT(NotifiedOfWrite(aside + "/sub/file"), ElementsAre(watched + "/sub/file"));
    EXPECT_THAT(NotifiedOfWrite(base + "/beside"), IsEmpty());

    ASSERT_EQ(umount2(watched.c_str(), 0), 0);
    ASSERT_EQ(mount(aside.c_str(), (watched + "/sub").c_str(), nullptr, MS_BIND, nullptr), 0);
    marks.Update(watches);
    const bool holdsData = major(Engine::FindPlace(watched).device) != 0;  // what lies below counts only then
    EXPECT_THAT(NotifiedOfWrite(aside + "/file"), SizeIs(holdsData ? 1 : 0));
}

TEST_F(MarksTest, WithChangesADirectoryIsWatchedForAllThatIsDoneToItByAnyPathAndWhereverItIsMoved)
{
    const std::string moved = base + "/moved";
    const auto ready = [&] {
        fs::remove_all(moved);
        fs::create_directories(watched + "/sub");
        for (const char* name : {"/kept", "/linked", "/in", "/out", "/later"}) {
            fs::remove_all(watched + name);
            fs::remove_all(aside + name);
        }
        return WriteFile(watched + "/kept") && WriteFile(aside + "/in") &&
               link((watched + "/kept").c_str(), (aside + "/linked").c_str()) == 0;
    };
    const std::string in = watched + "/in";
    const std::string kept = watched + "/kept";
    // What is done, and what is told of it at least.
    const std::tuple<const char*, std::function<bool()>, std::string> rows[] = {
        {"rename", [&] { return rename((aside + "/in").c_str(), in.c_str()) == 0; }, in},
        {"exchange", [&] { return renameat2(-1, (aside + "/in").c_str(), -1, kept.c_str(), RENAME_EXCHANGE) == 0; },
         kept},
        {"chmod", [&] { return chmod(kept.c_str(), 0600) == 0; }, kept},
        {"move",
         [&] { return rename(watched.c_str(), moved.c_str()) == 0 && rename(moved.c_str(), watched.c_str()) == 0; },
         watched},
        {"hard link", [&] { return WriteFile(aside + "/linked"); }, aside + "/linked"},
        {"open by a hard link that is gone",
         [&] {
             const int file = open((aside + "/linked").c_str(), O_WRONLY | O_CLOEXEC);
             return unlink((aside + "/linked").c_str()) == 0 && write(file, "x", 1) == 1;
         },
         aside + "/linked"},
        {"hard link made and gone",
         [&] {
             return link(kept.c_str(), (aside + "/out").c_str()) == 0 && WriteFile(aside + "/out") &&
                    unlink((aside + "/out").c_str()) == 0;
         },
         aside + "/out"},
    };
    for (const bool changes : {false, true}) {
        ready();
        ASSERT_FALSE(group.Open(changes));
        marks.StartOver();
        ASSERT_FALSE(Watch(watched, changes));
        EXPECT_EQ(NotifiedOfWrite(aside + "/linked").empty(), !changes);  // it was there before
        for (const auto& [name, act, told] : rows) {
            ASSERT_TRUE(NotifiedOf("", ready).empty());
            EXPECT_THAT(NotifiedOf("0123456789ab", act), changes ? Matcher<Paths>(Contains(told)) : IsEmpty()) << name;
        }
        fs::rename(watched, moved);
        EXPECT_THAT(NotifiedOfWrite(moved + "/sub/file"),
                    changes ? Matcher<Paths>(Contains(moved + "/sub/file")) : IsEmpty());
        marks.Update(watches);
        fs::create_directory(watched);
        fs::rename(watched, aside + "/later");  // there between two looks only
        fs::create_directory(watched);
        EXPECT_THAT(NotifiedOfWrite(aside + "/later/file"),
                    changes ? Matcher<Paths>(Contains(aside + "/later/file")) : IsEmpty());
        marks.Update(watches);
        EXPECT_THAT(NotifiedOfWrite(moved + "/file"), changes ? Matcher<Paths>(Contains(moved + "/file")) : IsEmpty());
        EXPECT_THAT(NotifiedOfWrite(watched + "/file"), Contains(watched + "/file"));
        fs::rename(watched + "/file", aside + "/file");
        marks.Update(watches);
        while (!NotifiedOfWrite(aside + "/file").empty()) {
        }
    }
}

// A container may have the filesystem mounted without what is mounted on it.
TEST_F(MarksTest, WithChangesADirectoryBelowAMountPointIsWatched)
{
    fs::create_directories(watched + "/sub/hidden");
    ASSERT_EQ(mount(base.c_str(), aside.c_str(), nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mount("none", (watched + "/sub").c_str(), "tmpfs", 0, nullptr), 0);
    ASSERT_FALSE(group.Open(true));
    ASSERT_FALSE(Watch(watched, true));
    const std::string hidden = aside + "/watched/sub/hidden/file";
    NotifiedOfWrite(hidden);
    EXPECT_FALSE(NotifiedOf("0123456789ab", [&] { return truncate(hidden.c_str(), 0) == 0; }).empty());
}

TEST_F(MarksTest, AnOverlayIsWatchedDirectoryByDirectory)
{
    ASSERT_EQ(mount("none", aside.c_str(), "tmpfs", 0, nullptr), 0);
    for (const char* layer : {"/lower/sub/deep", "/upper", "/work", "/merged"}) {
        fs::create_directories(aside + layer);
    }
    const std::string options = "lowerdir=" + aside + "/lower,upperdir=" + aside + "/upper,workdir=" + aside + "/work";
    const std::string merged = aside + "/merged";
    CE_REQUIRE(mount("overlay", merged.c_str(), "overlay", 0, options.c_str()) == 0, "no overlay filesystem here");
    // Older kernels (6.1) mark no overlay whose handles they cannot open (fanotify_test_fid in
    // fs/notify/fanotify/fanotify_user.c): it must not pass for covered.
    const auto refusal = group.Add(Engine::FanotifyGroup::Scope::Inode, merged, FAN_MODIFY);
    ASSERT_EQ(Watch(merged + "/sub"), refusal);
    if (refusal) {
        return;
    }
    EXPECT_THAT(NotifiedOfWrite(merged + "/sub/deep/file"), ElementsAre(merged + "/sub/deep/file"));
    fs::create_directory(merged + "/sub/made");
    EXPECT_THAT(NotifiedOfWrite(merged + "/beside"), IsEmpty());
    marks.Update(watches);
    EXPECT_THAT(NotifiedOfWrite(merged + "/sub/made/file"), ElementsAre(merged + "/sub/made/file"));
}

// On a filesystem of its own, where no process but the test's makes events. The look-up of a directory that is gone is
// counted.
TEST_F(MarksTest, LossesAreCountedAndAccessesOfTheHostCostNoLookUp)
{
    ASSERT_EQ(mount("none", watched.c_str(), "tmpfs", 0, nullptr), 0);
    ASSERT_FALSE(Watch(watched));
    if (KernelMarks().find("fanotify sdev") == std::string::npos) {
        GTEST_SKIP() << "this kernel marks no tmpfs, and directories that are marked one by one need no look-up";
    }
    const auto writeInGone = [gone = watched + "/gone"] {
        return fs::create_directory(gone) && WriteFile(gone + "/file") && fs::remove_all(gone) == 2;
    };
    writeInGone();  // the agent itself
    EXPECT_THAT(NotifiedOf("", writeInGone), IsEmpty());
    EXPECT_EQ(Counted("notify.read"), 2U);
    EXPECT_EQ(Counted("notify.not_container"), 1U);
    EXPECT_EQ(Counted("notify.unresolved"), 0U);
    EXPECT_THAT(NotifiedOf("0123456789ab", writeInGone), IsEmpty());
    EXPECT_EQ(Counted("notify.unresolved"), 1U);

    SDK::Limits::Keep();
    const auto writeAndTakeDescriptors = [path = watched + "/file"] {
        rlimit none{};
        getrlimit(RLIMIT_NOFILE, &none);
        none.rlim_cur = 0;
        return WriteFile(path) && prlimit(getppid(), RLIMIT_NOFILE, &none, nullptr) == 0;
    };
    EXPECT_THAT(NotifiedOf("0123456789ab", writeAndTakeDescriptors), ElementsAre(watched + "/file"));
    EXPECT_THAT(SDK::Impairments::Take(), SizeIs(1));

    // The next container is the last one before the loss, and not the loudest.
    for (const std::string container : {"0123456789ab", "ab0123456789"}) {
        NotifiedOf(container, [&] { return WriteFile(watched + "/" + container); });
    }
    const fanotify_event_metadata full{sizeof(full), FANOTIFY_METADATA_VERSION, 0, sizeof(full), FAN_Q_OVERFLOW, -1, 0};
    notifier.Handle(std::as_bytes(std::span{&full, 1}), now);
    EXPECT_EQ(SDK::Impairments::Loudest(SDK::Impairments::Source::Files), "0123456789ab");
    notifier.Handle(std::as_bytes(std::span{"no event"}), now);
    notifier.ReadFailed(std::make_error_code(std::errc::too_many_files_open), now);
    EXPECT_EQ(Counted("notify.overflow"), 3U);
}

}  // namespace
