// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/WatchTable.h"

#include <gmock/gmock.h>
#include <sys/fanotify.h>

#include "tests/support/FakeSystem.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class WatchTableTest : public testing::Test {
protected:
    static constexpr unsigned int writes = FAN_MODIFY | FAN_CLOSE_WRITE;

    int Add(const Framework::Task& task, const std::string& text, const _FileNotifyOpt& options = {})
    {
        return table.Add(&task, text, Engine::ParseWatchEntry(text, {writes}), options).number;
    }

    // The numbers of the watches that are notified.
    std::vector<int> Matching(const std::string& path, std::uint64_t mask, std::chrono::seconds at = {})
    {
        table.Match(path, mask, shell, Engine::WatchTable::TimePoint{} + std::chrono::hours{1} + at, matches);
        std::vector<int> numbers;
        for (const Engine::WatchMatch& match : matches) {
            numbers.push_back(match.watch->number);
        }
        return numbers;
    }

    static constexpr int shell = 50;
    Framework::Task one{"one", "", Framework::TaskCondition::EventLoop, 1};
    Framework::Task two{"two", "", Framework::TaskCondition::EventLoop, 1};
    Engine::WatchTable table;
    std::vector<Engine::WatchMatch> matches;
};

TEST_F(WatchTableTest, LastWithdrawalEndsTheWatch)
{
    const int number = Add(one, "/a");
    EXPECT_EQ(Add(one, "/a"), number);
    EXPECT_FALSE(table.Remove(&two, "/a"));
    EXPECT_TRUE(table.Remove(&one, "/a"));
    EXPECT_THAT(Matching("/a/f", FAN_MODIFY), ElementsAre(number));
    EXPECT_TRUE(table.Remove(&one, "/a"));
    EXPECT_THAT(Matching("/a/f", FAN_MODIFY), IsEmpty());
    EXPECT_FALSE(table.Remove(&one, "/a"));
}

TEST_F(WatchTableTest, EachSubscriberIsNotifiedOnceWithAllThatItsWatchesWant)
{
    const int first = Add(one, "/a");
    Add(one, "/a/b*/*r");
    const int other = Add(two, "/a/b*/*r");
    EXPECT_THAT(Matching("/a/b/f", FAN_OPEN | FAN_MODIFY | FAN_ATTRIB), ElementsAre(first, other));
    EXPECT_EQ(matches[0].mask, FAN_OPEN | FAN_MODIFY);
    EXPECT_EQ(matches[1].mask, FAN_OPEN);
}

TEST_F(WatchTableTest, OptionsNarrowAWatch)
{
    Support::FakeSystem system;
    system.Put(shell, {{1, "backup"}, "c", "", {}});
    _FileNotifyOpt once;
    once.once = true;
    _FileNotifyOpt counting;
    counting.countOnly = true;
    _FileNotifyOpt limited;
    limited.limit = 2;
    _FileNotifyOpt excluding;
    excluding.excludedPaths = {"/e/cache"};
    _FileNotifyOpt sparing;
    sparing.excludedProcesses = {"backup"};
    Add(one, "/o", once);
    Add(one, "/c", counting);
    Add(one, "/l", limited);
    Add(one, "/e", excluding);
    Add(one, "/s", sparing);

    struct Row {
        const char* path;
        int second;
        std::size_t notified;
    };
    for (const Row& row : std::vector<Row>{{"/o/f", 0, 1},
                                           {"/o/f", 0, 0},
                                           {"/c/f", 0, 0},
                                           {"/l/f", 0, 1},
                                           {"/l/f", 0, 1},
                                           {"/l/f", 0, 0},
                                           {"/l/f", 1, 1},
                                           {"/e/cache/f", 1, 0},
                                           {"/e/cached", 1, 1},
                                           {"/s/f", 1, 0}}) {
        EXPECT_EQ(Matching(row.path, FAN_MODIFY, std::chrono::seconds{row.second}).size(), row.notified) << row.path;
    }
}

}  // namespace
