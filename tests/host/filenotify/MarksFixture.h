// SPDX-License-Identifier: Apache-2.0
// What the kernel reports for the marks that are set, without the task's thread.
#pragma once

#include <fcntl.h>
#include <sched.h>
#include <sys/fanotify.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "host/filenotify/Marks.h"
#include "host/filenotify/Notifier.h"
#include "tests/host/filenotify/NotifyFixture.h"
#include "tests/support/MustRun.h"
#include "tests/support/TemporaryDirectory.h"

namespace fs = std::filesystem;
using testing::HasSubstr;

inline bool WriteFile(const std::string& path)
{
    return (std::ofstream{path} << "text\n" << std::flush).good();
}

class MarksTest : public NotifyFixture {
protected:
    void SetUp() override
    {
        // No other process sees the mounts of the test, and they are gone with this one.
        CE_REQUIRE(unshare(CLONE_NEWNS) == 0 && !group.Open(), "needs root, and fanotify in the kernel");
        ASSERT_EQ(mount("", "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
        fs::create_directories(watched + "/sub");
        fs::create_directories(aside + "/sub");
    }

    void TearDown() override
    {
        watches = {};
        marks.Update(watches);
        EXPECT_THAT(KernelMarks(), testing::Not(HasSubstr(" mask:"))) << "a mark goes with its last watch";
        for (const std::string& mountPoint : {watched, watched + "/sub", aside, base}) {
            umount2(mountPoint.c_str(), MNT_DETACH);
        }
    }

    // Returns why the watch is not covered.
    std::error_code Watch(const std::string& text, bool changes = false)
    {
        const int number = watches.Add(&subscriber, text, Engine::ParseWatchEntry(text, {written}, changes));
        marks.Update(watches);
        return marks.ErrorOf(number);
    }

    // Reads until nothing is queued, as the task does.
    void Read()
    {
        std::error_code error;
        while (const std::size_t size = group.Read(buffer, error)) {
            Note({buffer.data(), size});
            notifier.Handle({buffer.data(), size}, now);
            if (marks.NeedUpdate()) {
                marks.Update(watches);
            }
        }
        EXPECT_FALSE(error);
        marks.Handles().QueueIsEmpty();
        marks.CloseMounts();
    }

    virtual void Note(std::span<const std::byte> /*bytes*/) {}

    // The paths that the subscriber is notified of when a process of that container (empty: of the host) runs `action`.
    template <class Action>
    std::vector<std::string> NotifiedOf(const std::string& container, const Action& action)
    {
        const pid_t child = fork();
        if (child == 0) {
            _exit(action() ? 0 : 1);
        }
        int status = -1;
        EXPECT_TRUE(waitpid(child, &status, 0) == child && status == 0);
        system.PutInContainer(child, container);
        Read();
        std::vector<std::string> paths;
        for (const Engine::FileNotifyMessage& message : std::exchange(subscriber.seen, {})) {
            paths.push_back(message.GetEventFilePath());
            EXPECT_TRUE(group.WithObjects() || message.GetEventMask() == written);
        }
        return paths;
    }

    std::vector<std::string> NotifiedOfWrite(const std::string& path)
    {
        return NotifiedOf("0123456789ab", [&] { return WriteFile(path); });
    }

    // What the kernel tells of the group, a line for each mark (proc_pid_fdinfo(5)).
    std::string KernelMarks() const
    {
        std::ifstream info{"/proc/self/fdinfo/" + std::to_string(group.Descriptor())};
        return {std::istreambuf_iterator<char>{info}, {}};
    }

    static constexpr unsigned int written = FAN_MODIFY | FAN_CLOSE_WRITE;

    const TemporaryDirectory directory;
    const std::string base = fs::canonical(directory.Path()).string();
    const std::string watched = base + "/watched";
    const std::string aside = base + "/aside";
    Engine::FanotifyGroup group;
    Engine::WatchTable watches;
    Engine::Marks marks{group};
    Engine::Notifier notifier{watches, marks, getpid(), [this](const std::unique_ptr<Engine::AccessBatch>& batch) {
                                  EXPECT_EQ(batch->When(), now.time_since_epoch()) << "when it was read";
                                  Reach(*batch, [](std::span<const int>) {});
                              }};
    std::vector<std::byte> buffer = std::vector<std::byte>(65536);
};
