// SPDX-License-Identifier: Apache-2.0
// Buffers as the kernel fills them for a fanotify group, and with whatever lengths a test wants.
#pragma once

#include <fcntl.h>
#include <sys/fanotify.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>
#include <string>
#include <vector>

namespace Support {

class EventBuffer {
public:
    EventBuffer& Event(std::uint64_t mask, int pid, const std::string& handle = "", const std::string& name = "")
    {
        const std::string record = handle.empty() ? "" : DirectoryRecord(FAN_EVENT_INFO_TYPE_DFID_NAME, handle, name);
        return EventWith(mask, pid, record);
    }

    EventBuffer& EventWith(std::uint64_t mask, int pid, const std::string& records)
    {
        fanotify_event_metadata header{};
        header.vers = FANOTIFY_METADATA_VERSION;
        header.metadata_len = sizeof(header);
        header.event_len = static_cast<std::uint32_t>(sizeof(header) + records.size());
        header.mask = mask;
        header.fd = FAN_NOFD;
        header.pid = pid;
        bytes += Raw(header) + records;
        return *this;
    }

    // `claimed`: the handle's length as the record gives it; -1: the true one.
    static std::string DirectoryRecord(int type, const std::string& handle, const std::string& name, int claimed = -1)
    {
        constexpr std::uint64_t fsid = 77;
        constexpr std::int32_t handleType = 1;
        const auto size = claimed < 0 ? static_cast<std::uint32_t>(handle.size()) : static_cast<std::uint32_t>(claimed);
        return Record(type, Raw(fsid) + Raw(size) + Raw(handleType) + handle + name + '\0');
    }

    static std::string Record(int type, const std::string& body)
    {
        fanotify_event_info_header header{};
        header.info_type = static_cast<std::uint8_t>(type);
        header.len = static_cast<std::uint16_t>(sizeof(header) + body.size());
        return Raw(header) + body;
    }

    std::span<const std::byte> Bytes() const { return std::as_bytes(std::span{bytes}); }

    std::string bytes;

private:
    template <class T>
    static std::string Raw(const T& value)
    {
        std::string text(sizeof(T), '\0');
        std::memcpy(text.data(), &value, sizeof(T));
        return text;
    }
};

}  // namespace Support
