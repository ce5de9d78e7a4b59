// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/FanotifyEvents.h"

#include <gmock/gmock.h>

#include <random>

#include "tests/host/filenotify/EventBuffer.h"

namespace {

using Engine::FanotifyEvent;
using Engine::FanotifyEventReader;
using Support::EventBuffer;

struct Read {
    std::vector<FanotifyEvent> events;
    bool malformed = false;
};

Read ReadAll(std::span<const std::byte> bytes)
{
    FanotifyEventReader reader{bytes};
    Read read;
    for (FanotifyEvent event; reader.Next(event);) {
        read.events.push_back(event);
    }
    read.malformed = reader.Malformed();
    return read;
}

std::string HandleOf(const FanotifyEvent& event)
{
    return {reinterpret_cast<const char*>(event.directory.bytes.data()), event.directory.bytes.size()};
}

TEST(FanotifyEvents, ReadsDirectoryAndNameOfEveryEvent)
{
    EventBuffer buffer;
    buffer.EventWith(FAN_MODIFY, 10,
                     EventBuffer::Record(200, "of an unknown type") +
                         EventBuffer::DirectoryRecord(FAN_EVENT_INFO_TYPE_DFID_NAME, "handle-a", "file"));
    buffer.Event(FAN_ATTRIB | FAN_ONDIR, 11, "handle-b", ".").Event(FAN_Q_OVERFLOW, 0);

    const Read read = ReadAll(buffer.Bytes());

    ASSERT_EQ(read.events.size(), 3U);
    EXPECT_EQ(HandleOf(read.events[0]), "handle-a");
    EXPECT_EQ(read.events[0].directory.fsid, 77U);
    EXPECT_EQ(read.events[0].name, "file");
    EXPECT_EQ(read.events[1].name, "") << "the directory itself";
    EXPECT_FALSE(read.events[2].HasDirectory());
}

TEST(FanotifyEvents, LeavesOutRecordsThatContradictTheirLength)
{
    const std::vector<std::string> records{
        EventBuffer::DirectoryRecord(FAN_EVENT_INFO_TYPE_DFID_NAME, "handle", "name", 0x7fffffff),
        EventBuffer::DirectoryRecord(FAN_EVENT_INFO_TYPE_DFID_NAME, std::string(MAX_HANDLE_SZ + 1, 'h'), "name"),
        EventBuffer::Record(FAN_EVENT_INFO_TYPE_DFID_NAME, "short"),
        std::string("\x02\x00\x00\x00", 4),  // length 0
        std::string("\x02\x00\xff\xff", 4),  // longer than the event
    };
    for (const std::string& record : records) {
        EventBuffer buffer;
        buffer.EventWith(FAN_MODIFY, 10, record).Event(FAN_MODIFY, 11, "handle", "next");
        const Read read = ReadAll(buffer.Bytes());
        ASSERT_EQ(read.events.size(), 2U);
        EXPECT_FALSE(read.events[0].HasDirectory());
        EXPECT_EQ(read.events[1].name, "next");
    }
}

TEST(FanotifyEvents, StopsAtAHeaderThatMakesNoSense)
{
    EventBuffer good;
    good.Event(FAN_MODIFY, 10, "handle", "name");
    for (const std::size_t field :
         {offsetof(fanotify_event_metadata, event_len), offsetof(fanotify_event_metadata, vers),
          offsetof(fanotify_event_metadata, metadata_len)}) {
        EventBuffer buffer = good;
        buffer.bytes += good.bytes;
        buffer.bytes[good.bytes.size() + field] = '\xff';
        const Read read = ReadAll(buffer.Bytes());
        EXPECT_EQ(read.events.size(), 1U);
        EXPECT_TRUE(read.malformed);
    }
    EXPECT_TRUE(ReadAll(good.Bytes().first(good.bytes.size() - 1)).malformed);
}

// Copies of exactly the buffer's size on the heap: a read beyond the end shows under the address sanitizer, and a
// view that reaches beyond it shows here.
TEST(FanotifyEvents, StaysWithinTheBufferWhateverIsInIt)
{
    EventBuffer good;
    good.Event(FAN_MODIFY, 10, "handle-a", "file").Event(FAN_CREATE, 11, "handle-b", "other");
    std::mt19937 random{1};
    for (int round = 0; round < 20'000; ++round) {
        std::vector<std::byte> bytes(good.Bytes().begin(), good.Bytes().end());
        bytes.resize(random() % (bytes.size() + 1));
        for (unsigned int change = 0; change < 4 && !bytes.empty(); ++change) {
            bytes[random() % bytes.size()] = static_cast<std::byte>(random());
        }
        for (const FanotifyEvent& event : ReadAll(bytes).events) {
            const auto* begin = reinterpret_cast<const char*>(bytes.data());
            if (!event.name.empty()) {
                ASSERT_LE(event.name.data() + event.name.size(), begin + bytes.size());
            }
            ASSERT_LE(HandleOf(event).size(), static_cast<std::size_t>(MAX_HANDLE_SZ));
        }
    }
}

}  // namespace
