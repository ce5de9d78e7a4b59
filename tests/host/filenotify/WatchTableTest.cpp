// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/WatchTable.h"

#include <gmock/gmock.h>
#include <sys/fanotify.h>

#include "host/filenotify/WatchPlace.h"

namespace {

using Engine::EventMasks;
using Engine::ParseWatchEntry;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t changes = FAN_CREATE | FAN_DELETE | FAN_MOVED_FROM | FAN_MOVED_TO;

TEST(WatchEntryTest, LettersChooseTheEventsAndMasksDoOtherwise)
{
    const struct {
        const char* text;
        std::vector<unsigned int> masks;
        const char* path;
        EventMasks expected;
    } rows[] = {
        {"/etc", {2, 8}, "/etc", {FAN_MODIFY | FAN_CLOSE_WRITE, 0}},
        {"/etc/", {8, 0x40000000}, "/etc", {FAN_CLOSE_WRITE, FAN_CLOSE_WRITE}},
        {"/etc*/*w", {}, "/etc", {FAN_MODIFY | FAN_CLOSE_WRITE | changes, changes}},
        {"/a*/*xa", {2}, "/a", {FAN_OPEN_EXEC | FAN_ATTRIB, FAN_ATTRIB}},
        {"/a*/*rrr", {2}, "/a", {FAN_OPEN | FAN_ACCESS, 0}},
    };
    for (const auto& row : rows) {
        const auto entry = ParseWatchEntry(row.text, row.masks);
        EXPECT_EQ(entry.path + entry.error, row.path);
        EXPECT_EQ(entry.masks, row.expected) << row.text;
    }
    const std::pair<std::string, std::vector<unsigned int>> refused[] = {
        {"", {2}},         {"etc", {2}}, {std::string("/a\0b", 4), {2}}, {"/etc*/*", {2}},
        {"/etc*/*q", {2}}, {"/etc", {}}, {"/etc", {2, FAN_OPEN_PERM}},   {"/etc", {FAN_Q_OVERFLOW}},
    };
    for (const auto& [text, masks] : refused) {
        EXPECT_NE(ParseWatchEntry(text, masks).error, "") << text;
    }
}

class WatchTableTest : public testing::Test {
protected:
    int Add(const Framework::Task& task, const std::string& text)
    {
        return table.Add(&task, text, ParseWatchEntry(text, {FAN_MODIFY}));
    }

    // Number and events of the watches that are notified.
    std::vector<std::pair<int, std::uint64_t>> Matching(const std::string& path, std::uint64_t mask)
    {
        std::vector<Engine::WatchMatch> matches;
        table.Match(path, mask, matches);
        std::vector<std::pair<int, std::uint64_t>> found;
        for (const Engine::WatchMatch& match : matches) {
            found.emplace_back(match.watch->number, match.mask);
        }
        return found;
    }

    Framework::Task one{"one", "", Framework::TaskCondition::EventLoop, 1};
    Framework::Task two{"two", "", Framework::TaskCondition::EventLoop, 1};
    Engine::WatchTable table;
};

TEST_F(WatchTableTest, LastWithdrawalEndsTheWatch)
{
    const int number = Add(one, "/a");
    EXPECT_EQ(Add(one, "/a"), number);
    EXPECT_FALSE(table.Remove(&two, "/a"));
    EXPECT_TRUE(table.Remove(&one, "/a"));
    EXPECT_THAT(Matching("/a/f", FAN_MODIFY), testing::SizeIs(1));
    EXPECT_TRUE(table.Remove(&one, "/a"));
    EXPECT_THAT(Matching("/a/f", FAN_MODIFY), IsEmpty());
    EXPECT_FALSE(table.Remove(&one, "/a"));
}

TEST_F(WatchTableTest, EachSubscriberIsNotifiedOnceWithAllThatItsWatchesWant)
{
    const int first = Add(one, "/a");
    Add(one, "/a/b*/*r");
    const int other = Add(two, "/a/b*/*r");
    EXPECT_THAT(Matching("/a/b/f", FAN_OPEN | FAN_MODIFY | FAN_ATTRIB),
                ElementsAre(std::pair(first, FAN_OPEN | FAN_MODIFY), std::pair(other, FAN_OPEN)));
    EXPECT_THAT(Matching("/a/bf", FAN_OPEN), IsEmpty()) << "beside it";
    EXPECT_THAT(Matching("/a/b", FAN_OPEN | FAN_ONDIR), IsEmpty()) << "no watch asked for directories";
    const int root = Add(two, "/*/*w");
    EXPECT_EQ(Engine::JoinPath("/", "b"), "/b");
    EXPECT_THAT(Matching("/b", FAN_CREATE | FAN_ONDIR), ElementsAre(std::pair(root, FAN_CREATE | FAN_ONDIR)));
}

TEST(WatchPlaceTest, DataMountsAreThoseOfTheHostsDisks)
{
    EXPECT_THAT(Engine::DataMounts("21 1 254:0 / / rw,relatime - ext4 /dev/vda rw\n"
                                   "22 21 0:5 / /proc rw - proc proc rw\n"
                                   "30 21 8:17 / /var/lib/with\\040blank rw shared:1 master:2 - xfs /dev/sdb1 rw\n"
                                   "31 21 0:40 /sub /var/pool rw - btrfs /dev/sdc rw\n"
                                   "32 21 0:41 / /var/lib/engine/merged rw - overlay overlay rw,lowerdir=/l\n"
                                   "33 21 0:42 / /var/shm rw - tmpfs shm rw\n"
                                   "nonsense\n"
                                   "36 21 8:1 / /var/cut"),
                ElementsAre("/", "/var/lib/with blank", "/var/pool"));
}

}  // namespace
