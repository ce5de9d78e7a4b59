// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/TraceMerger.h"

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "host/ftrace/CpuStream.h"
#include "tests/support/PageBuilder.h"

namespace Engine {
namespace {

using testing::ElementsAre;

constexpr std::uint64_t forever = UINT64_MAX;

class Times final : public RecordSink {
public:
    void OnRecord(const RawRecord& record) override
    {
        times.push_back(record.when);
        if (record.afterLoss) {
            marked.push_back(record.when);
        }
    }
    std::vector<std::uint64_t> Take() { return std::exchange(times, {}); }

    std::vector<std::uint64_t> times;
    std::vector<std::uint64_t> marked;
};

class TraceMergerTest : public testing::Test {
protected:
    TraceMerger Merger(std::size_t cpus, std::size_t maxPages = 8)
    {
        std::vector<std::unique_ptr<RecordStream>> streams;
        for (std::size_t cpu = 0; cpu < cpus; ++cpu) {
            buffers.push_back(std::make_unique<std::deque<Support::Bytes>>());
            streams.push_back(std::make_unique<CpuStream>(std::make_unique<Support::MemoryPages>(*buffers.back()),
                                                          Support::pageBytes, maxPages));
        }
        return TraceMerger{std::move(streams)};
    }

    Support::Bytes& Put(std::size_t cpu, const std::vector<std::uint64_t>& times, bool afterLoss = false)
    {
        Support::PageBuilder page{times.front()};
        for (const std::uint64_t when : times) {
            page.Add(when, Support::Record(7, 1));
        }
        return buffers[cpu]->emplace_back(afterLoss ? page.AfterLoss().Page() : page.Page());
    }

    std::vector<std::unique_ptr<std::deque<Support::Bytes>>> buffers;
    Times sink;
};

TEST_F(TraceMergerTest, ReleasesTheRecordsOfAllCpusInTheOrderOfTheirTimes)
{
    constexpr std::uint64_t hour = 3'600'000'000'000;
    TraceMerger merger = Merger(3);
    Put(0, {10, 40, 41});
    Put(0, {50, 80});
    Put(1, {20, 30, hour, hour + 1});
    Put(2, {15});
    merger.Round(forever, sink);
    EXPECT_THAT(sink.times, ElementsAre(10, 15, 20, 30, 40, 41, 50, 80, hour, hour + 1));
    EXPECT_FALSE(merger.Holding());
}

TEST_F(TraceMergerTest, HoldsBackWhatIsNotOlderThanTheRoundAndCountsWhatComesTooLate)
{
    TraceMerger merger = Merger(2);
    Put(0, {10, 30});
    EXPECT_EQ(merger.Round(20, sink), 20U);
    EXPECT_THAT(sink.Take(), ElementsAre(10));

    Put(1, {25});  // recorded earlier than 30, seen later
    merger.Round(31, sink);
    EXPECT_THAT(sink.Take(), ElementsAre(25, 30));
    EXPECT_EQ(merger.TakeLate(), 0U);

    Put(1, {29});
    merger.Round(40, sink);
    EXPECT_THAT(sink.Take(), ElementsAre(29));
    EXPECT_EQ(merger.TakeLate(), 1U);
}

TEST_F(TraceMergerTest, ReleasesOnlyWhatWasReadOfABufferThatItCannotEmpty)
{
    TraceMerger merger = Merger(2, 2);
    for (const std::uint64_t begin : {10U, 20U, 30U, 40U}) {
        Put(0, {begin, begin + 5});
    }
    Put(1, {22, 60});
    EXPECT_EQ(merger.Round(forever, sink), 20U);
    EXPECT_THAT(sink.Take(), ElementsAre(10, 15));
    EXPECT_TRUE(merger.IsBehind());
    merger.Drain(sink);
    EXPECT_THAT(sink.Take(), ElementsAre(20, 22, 25, 30, 35, 40, 45, 60));
}

TEST_F(TraceMergerTest, GetsThroughPagesThatAllClaimTheSameTime)
{
    TraceMerger merger = Merger(1, 2);
    for (int page = 0; page < 5; ++page) {
        Put(0, {7, 7});
    }
    merger.Drain(sink);
    EXPECT_EQ(sink.times.size(), 10U);
}

TEST_F(TraceMergerTest, MarksTheFirstRecordAfterALoss)
{
    TraceMerger merger = Merger(1);
    Put(0, {10, 11});
    Put(0, {20, 21}, true);
    merger.Round(forever, sink);
    EXPECT_THAT(sink.marked, ElementsAre(20));
    EXPECT_EQ(merger.TakeLostPages(), 1U) << "how many is not known";
}

// What the page claims, and what must be left of it.
struct Damage {
    const char* what;
    std::size_t offset;
    std::uint64_t value;
    std::vector<std::uint64_t> left;
};

TEST_F(TraceMergerTest, GivesUpADamagedPageAtThatPlaceOnly)
{
    // Each record takes a header and two words from offset 16 on.
    const Damage cases[] = {
        {"more bytes than a page has", 8, 0x7ffffff, {20}},
        {"a record that reaches past the end", 16 + 12, 28, {10, 20}},
        {"a length that leads backwards", 16 + 12, 0, {10, 20}},
        {"fewer bytes than the records need", 8, 16, {10, 20}},
    };
    for (const Damage& damage : cases) {
        TraceMerger merger = Merger(1);
        Support::Put(Put(buffers.size() - 1, {10, 11}), damage.offset, damage.value);
        Put(buffers.size() - 1, {20});
        merger.Round(forever, sink);
        EXPECT_EQ(sink.Take(), damage.left) << damage.what;
        EXPECT_EQ(merger.TakeLostPages(), 1U) << damage.what;
    }
}

}  // namespace
}  // namespace Engine
