// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/TraceMerger.h"

#include <algorithm>
#include <limits>
#include <utility>

namespace Engine {
namespace {

constexpr std::uint64_t forever = std::numeric_limits<std::uint64_t>::max();

bool Later(const RecordStream* left, const RecordStream* right)
{
    return left->Head().when > right->Head().when;
}

bool Releasable(const RecordStream& stream, std::uint64_t limit)
{
    return stream.Head().data != nullptr && stream.Head().when < limit;
}

}  // namespace

TraceMerger::TraceMerger(std::vector<std::unique_ptr<RecordStream>> streams) : streams(std::move(streams))
{
    heap.reserve(this->streams.size());
}

std::uint64_t TraceMerger::Round(std::uint64_t now, RecordSink& sink)
{
    std::uint64_t horizon = forever;
    for (const auto& stream : streams) {
        stream->Fill();
        horizon = std::min(horizon, stream->Horizon());
    }
    behind = horizon != forever;
    const std::uint64_t limit = std::min(now, horizon);
    Release(limit, sink);
    return limit;
}

void TraceMerger::Drain(RecordSink& sink)
{
    do {
        Round(forever, sink);
    } while (Holding() || IsBehind());
}

bool TraceMerger::Holding() const
{
    return std::any_of(streams.begin(), streams.end(),
                       [](const auto& stream) { return stream->Head().data != nullptr; });
}

void TraceMerger::Release(std::uint64_t limit, RecordSink& sink)
{
    heap.clear();
    for (const auto& stream : streams) {
        if (Releasable(*stream, limit)) {
            heap.push_back(stream.get());
        }
    }
    std::make_heap(heap.begin(), heap.end(), Later);
    while (!heap.empty()) {
        RecordStream& oldest = *heap.front();
        ReleaseRun(oldest, NextBest(), limit, sink);
        std::pop_heap(heap.begin(), heap.end(), Later);
        if (Releasable(oldest, limit)) {
            std::push_heap(heap.begin(), heap.end(), Later);
        } else {
            heap.pop_back();
        }
    }
}

// The time of the oldest record outside the front stream: one of the front's two children in the heap has it.
std::uint64_t TraceMerger::NextBest() const
{
    std::uint64_t best = forever;
    for (std::size_t child = 1; child < heap.size() && child <= 2; ++child) {
        best = std::min(best, heap[child]->Head().when);
    }
    return best;
}

// Records come in runs: while the others are later, no comparison with them is needed.
void TraceMerger::ReleaseRun(RecordStream& stream, std::uint64_t until, std::uint64_t limit, RecordSink& sink)
{
    do {
        const RawRecord& record = stream.Head();
        late += record.when < newest ? 1 : 0;
        newest = std::max(newest, record.when);
        sink.OnRecord(record);
        stream.Advance();
    } while (Releasable(stream, limit) && stream.Head().when <= until);
}

std::uint64_t TraceMerger::TakeLate()
{
    return std::exchange(late, 0);
}

std::uint64_t TraceMerger::TakeLostPages()
{
    std::uint64_t pages = 0;
    for (const auto& stream : streams) {
        pages += stream->TakeLostPages();
    }
    return pages;
}

}  // namespace Engine
