// SPDX-License-Identifier: Apache-2.0
// A process that makes, moves, links, writes and removes files and directories in a watched tree as fast as it can. It
// knows for each write whether the tree's marks had the time to be there: then the kernel must have told of it. The
// others may be missing, but are counted.
#include <sys/mman.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <random>
#include <thread>

#include "tests/host/filenotify/MarksFixture.h"

namespace {

constexpr std::size_t most = 1'000'000;        // operations
constexpr std::size_t operationsInARow = 500;  // whose events find room in the kernel's queue

// What both processes see.
struct Shared {
    std::atomic<std::uint32_t> timesEmpty;  // how often the reader has found the queue empty
    std::atomic<std::uint32_t> restsUntil;  // the writer does nothing before timesEmpty is that
    std::atomic<std::uint32_t> writes;
    std::atomic<bool> mayBeLate[most];  // by the write's number: it may have come before its mark
};

struct Writer {
    void Run(std::size_t operations)
    {
        for (number = 0; number < operations; ++number) {
            const bool isCalm = number / operationsInARow % 8 == 0;
            const bool rests = isCalm || number % operationsInARow == 0;
            for (shared.restsUntil = shared.timesEmpty + (rests ? 2 : 0); shared.timesEmpty < shared.restsUntil;) {
                sched_yield();
            }
            Operate(random() % 16);
        }
    }

    void Operate(unsigned int kind)
    {
        const std::string some = directories[random() % directories.size()].first;
        const std::string aside = base + "/aside/" + std::to_string(number);
        const std::string fresh = some + "/n" + std::to_string(number);
        if ((kind == 0 || directories.size() > 32) && some != directories[0].first) {
            fs::remove_all(some);
            std::erase_if(directories, [&](const auto& each) { return Engine::LiesWithin(each.first, some); });
        } else if (kind == 1) {
            mkdir(fresh.c_str(), 0700);
            Came(fresh);
        } else if (kind == 2) {  // a tree that comes with its files
            fs::create_directories(aside + "/sub");
            const std::string file = "/sub/" + NextName();
            std::ofstream{aside + file};
            rename(aside.c_str(), fresh.c_str());
            Came(fresh);
            Came(fresh + "/sub");
            Write(fresh + file, shared.timesEmpty);
        } else if (kind == 3) {  // a hard link
            std::ofstream{fresh};
            const std::string link = base + "/aside/" + NextName();
            ::link(fresh.c_str(), link.c_str());
            Write(link, shared.timesEmpty);
            unlink(link.c_str());
            unlink(fresh.c_str());
        } else if (kind == 4 && number % 64 == 0) {  // what is watched is moved away and comes back
            rename(directories[0].first.c_str(), aside.c_str());
            Write(aside + "/" + NextName(), 0);
            rename(aside.c_str(), directories[0].first.c_str());
        } else {
            const auto& [in, since] = directories[random() % directories.size()];
            const std::string file = in + "/" + NextName();
            Write(file, since);
            rename(file.c_str(), fresh.c_str());
            unlink(fresh.c_str());
        }
    }

    void Came(const std::string& directory) { directories.push_back({directory, shared.timesEmpty}); }

    // By which the write is known.
    std::string NextName() const { return "f" + std::to_string(shared.writes); }

    // `since`: timesEmpty when the file came to be watched. Has the queue been found empty twice after that, its event
    // has been read, and everything is marked.
    void Write(const std::string& path, std::uint32_t since)
    {
        shared.mayBeLate[shared.writes] = shared.timesEmpty < since + 2;
        const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
        if (write(file, "x", 1) != 1 || close(file) != 0) {
            _exit(1);
        }
        ++shared.writes;
    }

    Shared& shared;
    const std::string base;
    std::vector<std::pair<std::string, std::uint32_t>> directories{{base + "/watched", 0}};  // timesEmpty when it came
    std::mt19937 random{1};
    std::size_t number = 0;
};

class MarksModelTest : public MarksTest {
protected:
    // Which writes the kernel has told of.
    void Note(std::span<const std::byte> bytes) override
    {
        Engine::FanotifyEventReader reader{bytes};
        for (Engine::FanotifyEvent event; reader.Next(event);) {
            std::size_t write = most;
            if ((event.mask & FAN_MODIFY) != 0 && std::sscanf(std::string{event.name}.c_str(), "f%zu", &write) == 1 &&
                write < most) {
                reported[write] = true;
            }
        }
    }

    Shared* shared =
        static_cast<Shared*>(mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    std::vector<bool> reported = std::vector<bool>(most);
};

TEST_F(MarksModelTest, EveryWriteIsToldOrCountedAsPerhapsMissed)
{
    ASSERT_EQ(mount("none", base.c_str(), "tmpfs", 0, nullptr), 0);  // without the events of other processes
    ASSERT_TRUE(fs::create_directory(watched) && fs::create_directory(aside) && !group.Open(true));
    if (!group.WithTargets() || group.Add(Engine::FanotifyGroup::Scope::FileSystem, base, FAN_CREATE)) {
        GTEST_SKIP() << "this kernel marks no tmpfs, or does not tell what was made";
    }
    std::string text = watched;
    ASSERT_FALSE(Watch(text, true));
    const char* wanted = std::getenv("CE_OPERATIONS");  // up to a million
    const std::size_t operations = wanted == nullptr ? 40'000 : std::min<std::size_t>(most, std::atol(wanted));
    const pid_t child = fork();
    if (child == 0) {
        Writer{*shared, base}.Run(operations);
        _exit(0);
    }
    system.PutInContainer(child, "0123456789ab");
    int status = -1;
    std::size_t told = 0;
    for (bool isOver = false; !isOver;) {
        isOver = waitpid(child, &status, WNOHANG) == child;
        Read();
        ++shared->timesEmpty;
        for (const Engine::FileNotifyMessage& message : std::exchange(subscriber.seen, {})) {
            told += (message.GetEventMask() & FAN_MODIFY) != 0 ? 1 : 0;
        }
        if (shared->timesEmpty % 32 == 0 && shared->restsUntil > shared->timesEmpty) {
            // The same path as another watch, whose tree has not given up its marks, before the first one goes.
            Watch(text + "/", true);
            watches.Remove(&subscriber, std::exchange(text, text + "/"));
            marks.Update(watches);
        }
        std::this_thread::sleep_for(std::chrono::microseconds{100});
    }
    ASSERT_EQ(status, 0);
    std::size_t missed = 0;
    for (std::size_t write = 0; write < shared->writes; ++write) {
        missed += reported[write] ? 0 : 1;
        EXPECT_TRUE(reported[write] || shared->mayBeLate[write]) << "write " << write << " came after its mark";
    }
    const std::uint64_t late = Counted("notify.late");
    const std::uint64_t unresolved = Counted("notify.unresolved");
    std::printf("%u writes, %zu not reported, %zu told, %lu late, %lu unresolved\n", shared->writes.load(), missed,
                told, late, unresolved);
    EXPECT_EQ(Counted("notify.overflow"), 0U);
    EXPECT_LE(missed, late);
    EXPECT_LT(missed * 2, shared->writes) << "a race is given up";  // at rest a fortieth, beside other work more
    EXPECT_GE(told + missed + unresolved, shared->writes);
}

}  // namespace
