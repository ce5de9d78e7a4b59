// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/WatchTable.h"

#include <gmock/gmock.h>
#include <sys/fanotify.h>

#include <map>

#include "host/filenotify/WatchPlace.h"

namespace {

using Engine::EventMasks;
using Engine::ParseWatchEntry;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr std::uint64_t changes = FAN_CREATE | FAN_DELETE | FAN_MOVED_FROM | FAN_MOVED_TO;

TEST(WatchEntryTest, LettersChooseTheEventsAndMasksDoOtherwise)
{
    EXPECT_EQ(ParseWatchEntry("/etc", {2, 8}).masks, (EventMasks{FAN_MODIFY | FAN_CLOSE_WRITE, 0}));
    EXPECT_EQ(ParseWatchEntry("/etc", {8, 0x40000000}).masks, (EventMasks{FAN_CLOSE_WRITE, FAN_CLOSE_WRITE}));
    EXPECT_EQ(ParseWatchEntry("/etc*/*w", {}).masks, (EventMasks{FAN_MODIFY | FAN_CLOSE_WRITE | changes, changes}));
    EXPECT_EQ(ParseWatchEntry("/etc*/*xaa", {2}).masks, (EventMasks{FAN_OPEN_EXEC | FAN_ATTRIB, FAN_ATTRIB}));
    for (const char* text : {"/etc", "/etc*/*w"}) {
        EXPECT_EQ(ParseWatchEntry(text, {8}, true).masks, ParseWatchEntry("/etc*/*wa", {}).masks);
    }
    EXPECT_EQ(ParseWatchEntry("/etc*/*r", {8}, true).masks, ParseWatchEntry("/etc*/*r", {}).masks);
    EXPECT_EQ(ParseWatchEntry("/etc//*/*r", {}).path, "/etc");
    EXPECT_EQ(ParseWatchEntry("/", {2}).path, "/");
    const std::pair<std::string, std::vector<unsigned int>> refused[] = {
        {"", {2}},         {"etc", {2}}, {std::string("/a\0b", 4), {2}}, {"/etc*/*", {2}},
        {"/etc*/*q", {2}}, {"/etc", {}}, {"/etc", {2, FAN_OPEN_PERM}},   {"/etc", {FAN_Q_OVERFLOW}}};
    for (const auto& [text, masks] : refused) {
        EXPECT_NE(ParseWatchEntry(text, masks).error, "") << text;
    }
}

TEST(WatchTableTest, EachSubscriberIsNotifiedOnceWithAllThatItsWatchesWantUntilTheyAreRemoved)
{
    const Framework::Task one{"one", "", Framework::TaskCondition::EventLoop, 1};
    const Framework::Task two{"two", "", Framework::TaskCondition::EventLoop, 1};
    Engine::WatchTable table;
    const auto add = [&table](const Framework::Task& task, const std::string& text) {
        return table.Add(&task, text, ParseWatchEntry(text, {FAN_MODIFY}));
    };
    // Number and events of the watches that are notified.
    const auto matching = [&table](const std::string& path, std::uint64_t mask) {
        std::vector<Engine::WatchMatch> matches;
        table.Match(path, mask, matches);
        std::map<int, std::uint64_t> found;
        for (const auto& [watch, events] : matches) {
            EXPECT_TRUE(found.emplace(watch->number, events).second);
        }
        return found;
    };

    const int first = add(one, "/a");
    add(one, "/a/b*/*r");
    const int other = add(two, "/a/b*/*r");
    EXPECT_THAT(matching("/a/b/f", FAN_OPEN | FAN_MODIFY | FAN_ATTRIB),
                ElementsAre(std::pair(first, FAN_OPEN | FAN_MODIFY), std::pair(other, FAN_OPEN)));
    EXPECT_THAT(matching("/a/bf", FAN_OPEN), IsEmpty()) << "beside it";
    EXPECT_THAT(matching("/a/b", FAN_OPEN | FAN_ONDIR), IsEmpty()) << "no watch asked for directories";
    const int root = add(two, "/*/*w");
    EXPECT_EQ(Engine::JoinPath("/", "b"), "/b");
    EXPECT_THAT(matching("/b", FAN_CREATE | FAN_ONDIR), ElementsAre(std::pair(root, FAN_CREATE | FAN_ONDIR)));

    EXPECT_EQ(add(one, "/a"), first);
    EXPECT_FALSE(table.Remove(&two, "/a"));
    EXPECT_TRUE(table.Remove(&one, "/a"));
    EXPECT_THAT(matching("/a/f", FAN_MODIFY), testing::Contains(std::pair(first, FAN_MODIFY)));
    EXPECT_TRUE(table.Remove(&one, "/a"));
    EXPECT_EQ(matching("/a/f", FAN_MODIFY).count(first), 0U);
    EXPECT_FALSE(table.Remove(&one, "/a"));
}

TEST(WatchPlaceTest, DataMountsAreThoseOfTheHostsDisks)
{
    EXPECT_THAT(Engine::DataMounts("21 1 254:0 / / rw,relatime - ext4 /dev/vda rw\n"
                                   "22 21 0:5 / /proc rw - proc proc rw\n"
                                   "30 21 8:17 / /var/lib/with\\040blank rw shared:1 master:2 - xfs /dev/sdb1 rw\n"
                                   "31 21 0:40 /sub /var/pool rw - btrfs /dev/sdc rw\n"
                                   "36 21 8:1 / /var/cut"),
                ElementsAre("/", "/var/lib/with blank", "/var/pool"));
}

}  // namespace
