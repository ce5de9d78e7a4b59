// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/FanotifyEvents.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/fanotify.h>

#include <cstring>

namespace {

using Engine::FanotifyEvent;

// An event as the kernel writes it, with a record of an unknown type in front of the directory's.
struct Raw {
    explicit Raw(const char* text) { std::strcpy(name, text); }

    fanotify_event_metadata header{sizeof(Raw), FANOTIFY_METADATA_VERSION, 0, sizeof(header), FAN_MODIFY, -1, 10};
    fanotify_event_info_header unknown{200, 0, sizeof(unknown)};
    fanotify_event_info_header record{FAN_EVENT_INFO_TYPE_DFID_NAME, 0, sizeof(Raw) - offsetof(Raw, record)};
    unsigned int fsid[2] = {77, 0};
    unsigned int handleBytes = sizeof(handle);
    int handleType = 1;
    char handle[4] = {'h', 'a', 'n', 'd'};
    char name[196] = {};
};

// Copies of exactly the buffer's size on the heap: a read beyond the end shows under the address sanitizer.
using Bytes = std::vector<char>;

Bytes BytesOf(const std::vector<Raw>& events)
{
    const auto* begin = reinterpret_cast<const char*>(events.data());
    return {begin, begin + events.size() * sizeof(Raw)};
}

std::pair<std::vector<FanotifyEvent>, bool> Read(const Bytes& bytes)
{
    Engine::FanotifyEventReader reader{std::as_bytes(std::span{bytes})};
    std::vector<FanotifyEvent> events;
    for (FanotifyEvent event; reader.Next(event);) {
        events.push_back(event);
    }
    return {events, reader.Malformed()};
}

TEST(FanotifyEvents, ExcludesRecordsThatContradictTheirLengthAndStopsAtHeadersThatDo)
{
    // The byte of the first event that is spoilt, and how.
    const std::tuple<std::size_t, int, bool> rows[] = {
        {offsetof(Raw, record.len), 22, false},        {offsetof(Raw, handleBytes), MAX_HANDLE_SZ + 1, false},
        {offsetof(Raw, record.len), 12, false},        {offsetof(Raw, record.len), 0, false},
        {offsetof(Raw, record.len) + 1, 0xff, false},  {offsetof(Raw, record.info_type), 201, false},
        {offsetof(Raw, header.event_len), 23, true},   {offsetof(Raw, header.event_len) + 1, 0xff, true},
        {offsetof(Raw, header.metadata_len), 0, true}, {offsetof(Raw, header.metadata_len), 0xff, true},
        {offsetof(Raw, header.vers), 0xff, true}};
    for (const auto& [offset, value, endsHere] : rows) {
        Bytes bytes = BytesOf({Raw{"name"}, Raw{"next"}, Raw{"."}});
        bytes[offset] = static_cast<char>(value);
        const auto [events, malformed] = Read(bytes);
        ASSERT_EQ(events.size(), endsHere ? 0U : 3U) << offset << ' ' << value;
        EXPECT_EQ(malformed, endsHere);
        for (const FanotifyEvent& event : events) {
            EXPECT_EQ(event.HasDirectory(), &event != &events.front()) << offset << ' ' << value;
            EXPECT_EQ(event.name, &event == &events[1] ? "next" : "") << ". is the directory itself";
        }
    }
}

TEST(FanotifyEvents, StaysWithinTheBufferWhereverItEnds)
{
    const Bytes whole = BytesOf({Raw{"file"}, Raw{"other"}});
    for (std::size_t size = 0; size <= whole.size(); ++size) {
        EXPECT_EQ(Read({whole.begin(), whole.begin() + static_cast<std::ptrdiff_t>(size)}).first.size(),
                  size / sizeof(Raw));
    }
}

}  // namespace
