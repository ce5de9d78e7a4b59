// SPDX-License-Identifier: Apache-2.0
// Records in the order of their times, from one place of the kernel.
#pragma once

#include <cstddef>
#include <cstdint>

#include "host/ftrace/ProcessIdentity.h"

struct CeProgram;

namespace Engine {

// What the kernel tells of the thread that made a record, beside its id.
struct RecordSource {
    std::int32_t process = 0;            // 0: not known
    ProcessIdentity identity;            // the process's
    const CeProgram* program = nullptr;  // of an exec that is described; valid as long as the record
    const char* callerName = nullptr;    // of a system call that tells it, of CE_NAME_BYTES; likewise
};

// A record where it lies: valid until its stream moves on.
struct RawRecord {
    const std::byte* data = nullptr;
    std::uint32_t size = 0;
    std::uint16_t id = 0;    // the event's id, as its format file gives it
    bool afterLoss = false;  // records of this stream were lost before this one
    std::uint64_t when = 0;  // nanoseconds on the trace clock
    RecordSource source;
};

// Thread: one at a time.
class RecordStream {
public:
    virtual ~RecordStream() = default;

    // Reads what there is, up to a bound.
    virtual void Fill() = 0;

    // Records earlier than this have all been read: the maximum when Fill emptied the source.
    virtual std::uint64_t Horizon() const = 0;

    // The oldest record that was read and not passed; data is null when there is none.
    const RawRecord& Head() const { return head; }
    virtual void Advance() = 0;

    // Gaps of unknown size that the source reported, and places that could not be read. Reset by the call.
    virtual std::uint64_t TakeLostPages() = 0;

protected:
    RecordStream() = default;
    RecordStream(const RecordStream&) = default;
    RecordStream& operator=(const RecordStream&) = default;

    RawRecord head;
};

}  // namespace Engine
