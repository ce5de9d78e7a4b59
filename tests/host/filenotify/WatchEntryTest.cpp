// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/WatchEntry.h"

#include <gmock/gmock.h>
#include <sys/fanotify.h>

namespace {

using Engine::EventMasks;
using Engine::ParseWatchEntry;

constexpr std::uint64_t changes = FAN_CREATE | FAN_DELETE | FAN_MOVED_FROM | FAN_MOVED_TO;

TEST(WatchEntry, LettersChooseTheEventsAndMasksDoOtherwise)
{
    struct Row {
        const char* text;
        std::vector<unsigned int> masks;
        const char* path;
        EventMasks expected;
    };
    const std::vector<Row> rows{
        {"/etc", {2, 8}, "/etc", {FAN_MODIFY | FAN_CLOSE_WRITE, 0}},
        {"/etc/", {8, 0x40000000}, "/etc", {FAN_CLOSE_WRITE, FAN_CLOSE_WRITE}},
        {"/etc*/*w", {}, "/etc", {FAN_MODIFY | FAN_CLOSE_WRITE | changes, changes}},
        {"/a*/*xa", {2}, "/a", {FAN_OPEN_EXEC | FAN_ATTRIB, FAN_ATTRIB}},
        {"/a*/*rrr", {2}, "/a", {FAN_OPEN | FAN_ACCESS, 0}},
    };
    for (const Row& row : rows) {
        const auto entry = ParseWatchEntry(row.text, row.masks);
        EXPECT_EQ(entry.error, "") << row.text;
        EXPECT_EQ(entry.path, row.path);
        EXPECT_EQ(entry.masks, row.expected) << row.text;
    }
}

TEST(WatchEntry, RefusesWhatCannotBeWatched)
{
    struct Row {
        std::string text;
        std::vector<unsigned int> masks;
    };
    const std::vector<Row> rows{
        {"", {2}},         {"etc", {2}}, {std::string("/a\0b", 4), {2}}, {"/etc*/*rwxaw", {2}},
        {"/etc*/*q", {2}}, {"/etc", {}}, {"/etc", {2, FAN_OPEN_PERM}},   {"/etc", {FAN_Q_OVERFLOW}},
    };
    for (const Row& row : rows) {
        EXPECT_NE(ParseWatchEntry(row.text, row.masks).error, "") << row.text;
    }
}

TEST(WatchEntry, DirectoryEventsNeedAWatchThatAsksForThem)
{
    const EventMasks writes = ParseWatchEntry("/a*/*w", {}).masks;
    EXPECT_EQ(writes.Wanted(FAN_CREATE | FAN_ONDIR), FAN_CREATE | FAN_ONDIR);
    EXPECT_EQ(writes.Wanted(FAN_ATTRIB | FAN_ONDIR), 0U);
    EXPECT_EQ(ParseWatchEntry("/a*/*r", {}).masks.Wanted(FAN_OPEN | FAN_ONDIR), 0U);
}

TEST(WatchEntry, APathLiesWithinADirectoryAndNotBesideIt)
{
    EXPECT_TRUE(Engine::LiesWithin("/var/lib", "/var/lib"));
    EXPECT_TRUE(Engine::LiesWithin("/var/lib/x", "/var/lib"));
    EXPECT_TRUE(Engine::LiesWithin("/var", "/"));
    EXPECT_FALSE(Engine::LiesWithin("/var/libx", "/var/lib"));
    EXPECT_EQ(Engine::JoinPath("/", "etc"), "/etc");
}

}  // namespace
