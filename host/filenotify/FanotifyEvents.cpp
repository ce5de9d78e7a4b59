// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/FanotifyEvents.h"

#include <fcntl.h>
#include <sys/fanotify.h>

#include <cstring>

namespace Engine {

namespace {

using Bytes = std::span<const std::byte>;

// The buffer's records are only as aligned as hostile lengths leave them, so everything is copied out.
template <class T>
bool ReadAt(Bytes bytes, std::size_t offset, T& value)
{
    if (offset > bytes.size() || bytes.size() - offset < sizeof(T)) {
        return false;
    }
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return true;
}

// The zero-terminated name after a handle. "." stands for the directory itself (fanotify(7), FAN_REPORT_NAME).
std::string_view NameIn(Bytes bytes)
{
    const auto* text = reinterpret_cast<const char*>(bytes.data());
    const std::string_view name{text, strnlen(text, bytes.size())};
    return name == "." ? std::string_view{} : name;
}

// struct fanotify_event_info_fid: header, fsid, struct file_handle (length, type, bytes), and the name.
void ReadHandle(Bytes record, unsigned int type, FanotifyEvent& event)
{
    constexpr std::size_t fsidOffset = offsetof(fanotify_event_info_fid, fsid);
    constexpr std::size_t handleOffset = offsetof(fanotify_event_info_fid, handle);
    constexpr std::size_t bytesOffset = handleOffset + offsetof(file_handle, f_handle);
    std::uint32_t size = 0;
    FileHandle handle;
    if (!ReadAt(record, fsidOffset, handle.fsid) || !ReadAt(record, handleOffset, size) ||
        !ReadAt(record, handleOffset + offsetof(file_handle, handle_type), handle.type)) {
        return;
    }
    if (size > MAX_HANDLE_SZ || size > record.size() - bytesOffset) {
        return;
    }
    handle.bytes = record.subspan(bytesOffset, size);
    if (type == FAN_EVENT_INFO_TYPE_FID) {
        event.object = handle;
        return;
    }
    event.directory = handle;
    event.name =
        type == FAN_EVENT_INFO_TYPE_DFID_NAME ? NameIn(record.subspan(bytesOffset + size)) : std::string_view{};
}

void ReadRecords(Bytes records, FanotifyEvent& event)
{
    fanotify_event_info_header header{};
    while (ReadAt(records, 0, header) && header.len >= sizeof(header) && header.len <= records.size()) {
        if (header.info_type == FAN_EVENT_INFO_TYPE_DFID_NAME || header.info_type == FAN_EVENT_INFO_TYPE_DFID ||
            header.info_type == FAN_EVENT_INFO_TYPE_FID) {
            ReadHandle(records.first(header.len), header.info_type, event);
        }
        records = records.subspan(header.len);
    }
}

}  // namespace

bool FanotifyEventReader::Next(FanotifyEvent& event)
{
    if (rest.empty()) {
        return false;
    }
    fanotify_event_metadata header{};
    if (!ReadAt(rest, 0, header) || header.vers != FANOTIFY_METADATA_VERSION || header.metadata_len < sizeof(header) ||
        header.event_len < header.metadata_len || header.event_len > rest.size()) {
        malformed = true;
        rest = {};
        return false;
    }
    event = FanotifyEvent{};
    event.mask = header.mask;
    event.pid = header.pid;
    ReadRecords(rest.subspan(header.metadata_len, header.event_len - header.metadata_len), event);
    rest = rest.subspan(header.event_len);
    return true;
}

}  // namespace Engine
