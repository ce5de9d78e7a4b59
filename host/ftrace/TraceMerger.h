// SPDX-License-Identifier: Apache-2.0
// Brings the records of all CPUs into the order of their times.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "host/ftrace/RecordStream.h"

namespace Engine {

// Takes records in time order.
class RecordSink {
public:
    // `record` is valid during the call only.
    virtual void OnRecord(const RawRecord& record) = 0;

protected:
    ~RecordSink() = default;
};

// A CPU's buffer is in order by itself, but what another CPU recorded earlier may be read later. So a record is held
// back until every buffer has been read after the record's time: a round takes the time first, reads all buffers, and
// releases what is older than that time. The next round, which the owner starts at once while Holding(), releases the
// rest. A buffer that is too full to be emptied in one round limits the release to what has been read of it.
//
// Thread: one at a time. Throws std::bad_alloc only.
class TraceMerger {
public:
    explicit TraceMerger(std::vector<std::unique_ptr<RecordStream>> streams);

    // One round. `now`: nanoseconds on the trace clock, taken before the call. Returns the time before which everything
    // has been released: `now`, or less when a buffer could not be emptied.
    std::uint64_t Round(std::uint64_t now, RecordSink& sink);

    // Releases everything that the buffers hold; nothing must be recorded any more.
    void Drain(RecordSink& sink);

    // Whether records wait for the next round.
    bool Holding() const;

    // Whether the last round left records in a buffer.
    bool IsBehind() const { return behind; }

    // Records released after one that is later than they are. They were written by their CPU later than this reader's
    // time says, which takes an interrupted writer. Reset by the call.
    std::uint64_t TakeLate();

    // As RecordStream::TakeLostPages, of all CPUs.
    std::uint64_t TakeLostPages();

private:
    void Release(std::uint64_t limit, RecordSink& sink);
    std::uint64_t NextBest() const;
    void ReleaseRun(RecordStream& stream, std::uint64_t until, std::uint64_t limit, RecordSink& sink);

    std::vector<std::unique_ptr<RecordStream>> streams;
    std::vector<RecordStream*> heap;  // streams with records to release, the one with the oldest in front
    std::uint64_t newest = 0;
    std::uint64_t late = 0;
    bool behind = false;
};

}  // namespace Engine
