// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/FanotifyEvents.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/fanotify.h>

#include <cstring>
#include <random>

namespace {

using Engine::FanotifyEvent;

template <class T>
std::string Raw(const T& value)
{
    std::string text(sizeof(T), '\0');
    std::memcpy(text.data(), &value, sizeof(T));
    return text;
}

std::string Record(int type, const std::string& body)
{
    fanotify_event_info_header header{};
    header.info_type = static_cast<std::uint8_t>(type);
    header.len = static_cast<std::uint16_t>(sizeof(header) + body.size());
    return Raw(header) + body;
}

// `claimed`: the handle's length as the record gives it; 0: the true one.
std::string Directory(const std::string& handle, const std::string& name, std::uint32_t claimed = 0)
{
    const auto size = claimed != 0 ? claimed : static_cast<std::uint32_t>(handle.size());
    return Record(FAN_EVENT_INFO_TYPE_DFID_NAME,
                  Raw(std::uint64_t{77}) + Raw(size) + Raw(std::int32_t{1}) + handle + name + '\0');
}

// An event as the kernel writes it, with whatever records.
std::string Event(std::uint64_t mask, const std::string& records)
{
    fanotify_event_metadata header{};
    header.vers = FANOTIFY_METADATA_VERSION;
    header.metadata_len = sizeof(header);
    header.event_len = static_cast<std::uint32_t>(sizeof(header) + records.size());
    header.mask = mask;
    header.pid = 10;
    return Raw(header) + records;
}

struct Read {
    explicit Read(std::string_view text)
    {
        Engine::FanotifyEventReader reader{std::as_bytes(std::span{text})};
        for (FanotifyEvent event; reader.Next(event);) {
            events.push_back(event);
        }
        malformed = reader.Malformed();
    }
    std::vector<FanotifyEvent> events;
    bool malformed;
};

std::string HandleOf(const FanotifyEvent& event)
{
    return {reinterpret_cast<const char*>(event.directory.bytes.data()), event.directory.bytes.size()};
}

TEST(FanotifyEvents, ReadsDirectoryAndNameOfEveryEvent)
{
    const std::string buffer = Event(FAN_MODIFY, Record(200, "of an unknown type") + Directory("handle-a", "file")) +
                               Event(FAN_ATTRIB | FAN_ONDIR, Directory("handle-b", ".")) + Event(FAN_Q_OVERFLOW, "");
    const Read read{buffer};
    ASSERT_EQ(read.events.size(), 3U);
    EXPECT_EQ(read.events[0].pid, 10);
    EXPECT_EQ(HandleOf(read.events[0]), "handle-a");
    EXPECT_EQ(read.events[0].directory.fsid, 77U);
    EXPECT_EQ(read.events[0].name, "file");
    EXPECT_EQ(read.events[1].name, "") << "the directory itself";
    EXPECT_FALSE(read.events[2].HasDirectory());
}

TEST(FanotifyEvents, ExcludesRecordsThatContradictTheirLength)
{
    for (const std::string& record : {
             Directory("handle", "name", 0x7fffffff), Directory(std::string(MAX_HANDLE_SZ + 1, 'h'), "name"),
             Record(FAN_EVENT_INFO_TYPE_DFID_NAME, "short"), std::string("\x02\x00\x00\x00", 4),  // length 0
             std::string("\x02\x00\xff\xff", 4),  // longer than the event
         }) {
        const std::string buffer = Event(FAN_MODIFY, record) + Event(FAN_MODIFY, Directory("handle", "next"));
        const Read read{buffer};
        ASSERT_EQ(read.events.size(), 2U);
        EXPECT_FALSE(read.events[0].HasDirectory());
        EXPECT_EQ(read.events[1].name, "next");
    }
}

TEST(FanotifyEvents, StopsAtAHeaderThatMakesNoSense)
{
    const std::string good = Event(FAN_MODIFY, Directory("handle", "name"));
    for (const std::size_t field :
         {offsetof(fanotify_event_metadata, event_len), offsetof(fanotify_event_metadata, vers),
          offsetof(fanotify_event_metadata, metadata_len)}) {
        std::string buffer = good + good;
        buffer[good.size() + field] = '\xff';
        const Read read{buffer};
        EXPECT_EQ(read.events.size(), 1U);
        EXPECT_TRUE(read.malformed);
    }
    EXPECT_TRUE(Read{std::string_view{good}.substr(1)}.malformed);
    EXPECT_TRUE(Read{std::string_view{good}.substr(0, good.size() - 1)}.malformed);
}

// Copies of exactly the buffer's size on the heap: a read beyond the end shows under the address sanitizer, and a
// view that reaches beyond it shows here.
TEST(FanotifyEvents, StaysWithinTheBufferWhateverIsInIt)
{
    const std::string good =
        Event(FAN_MODIFY, Directory("handle-a", "file")) + Event(FAN_CREATE, Directory("handle-b", "other"));
    std::mt19937 random{1};
    for (int round = 0; round < 20'000; ++round) {
        std::vector<char> bytes(good.begin(), good.end());
        bytes.resize(random() % (bytes.size() + 1));
        bytes.shrink_to_fit();
        for (unsigned int change = 0; change < 4 && !bytes.empty(); ++change) {
            bytes[random() % bytes.size()] = static_cast<char>(random());
        }
        for (const FanotifyEvent& event : Read{{bytes.data(), bytes.size()}}.events) {
            ASSERT_TRUE(event.name.empty() || event.name.data() + event.name.size() <= bytes.data() + bytes.size());
            ASSERT_LE(HandleOf(event).size(), static_cast<std::size_t>(MAX_HANDLE_SZ));
        }
    }
}

}  // namespace
