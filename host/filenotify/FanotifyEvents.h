// SPDX-License-Identifier: Apache-2.0
// Reads the buffers that a fanotify group with FAN_REPORT_DFID_NAME, with or without FAN_REPORT_FID and
// FAN_REPORT_TARGET_FID, returns (fanotify(7), "Reading fanotify events").
// Pure: looks at bytes only. Tolerates what it does not know: unknown information records are passed over, a
// record that contradicts its own length ends that event's records, a header that does so ends the buffer.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace Engine {

// Which file or directory, on which filesystem. A view into the buffer that was read.
struct FileHandle {
    std::uint64_t fsid = 0;            // the eight bytes of statfs(2) f_fsid; 0: a filesystem without an id
    std::int32_t type = 0;             // struct file_handle, handle_type
    std::span<const std::byte> bytes;  // struct file_handle, f_handle: at most MAX_HANDLE_SZ bytes
};

struct FanotifyEvent {
    std::uint64_t mask = 0;  // FAN_* bits; the kernel merges queued events of one process and one file
    int pid = 0;             // thread group id in the agent's pid namespace; 0: a process outside of it
    FileHandle directory;    // no bytes: the event names no directory, as FAN_Q_OVERFLOW does not
    FileHandle object;       // what the name stands for; no bytes: it was not asked for, or is the directory
    std::string_view name;   // in that directory; empty: the directory itself. Hostile input

    bool HasDirectory() const { return !directory.bytes.empty(); }
    bool HasObject() const { return !object.bytes.empty(); }
};

class FanotifyEventReader {
public:
    // The buffer is not owned and outlives the events that are read from it. It need not be aligned.
    explicit FanotifyEventReader(std::span<const std::byte> buffer) : rest(buffer) {}

    // Fills `event` with the next one. False at the end of the buffer, and where the rest of it makes no sense.
    bool Next(FanotifyEvent& event);

    // Whether reading stopped before the end of the buffer: events are then lost, an unknown number of them.
    bool Malformed() const { return malformed; }

private:
    std::span<const std::byte> rest;
    bool malformed = false;
};

}  // namespace Engine
