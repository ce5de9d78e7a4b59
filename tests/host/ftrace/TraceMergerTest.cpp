// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/TraceMerger.h"

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "tests/host/ftrace/PageBuilder.h"

namespace Engine {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using Testing::MemoryPages;
using Testing::PageBuilder;
using Testing::Record;

constexpr std::uint16_t id = 7;
constexpr std::uint64_t forever = UINT64_MAX;

class Times final : public RecordSink {
public:
    void OnRecord(const RawRecord& record) override
    {
        times.push_back(record.when);
        if (record.afterLoss) {
            marked.push_back(record.when);
        }
        ids.push_back(record.id);
    }
    std::vector<std::uint64_t> Take() { return std::exchange(times, {}); }

    std::vector<std::uint64_t> times;
    std::vector<std::uint64_t> marked;
    std::vector<int> ids;
};

class TraceMergerTest : public testing::Test {
protected:
    TraceMerger Merger(std::size_t cpus, std::size_t maxPages = 8)
    {
        std::vector<std::unique_ptr<CpuStream>> streams;
        for (std::size_t cpu = 0; cpu < cpus; ++cpu) {
            buffers.push_back(std::make_shared<MemoryPages::Queue>());
            streams.push_back(std::make_unique<CpuStream>(std::make_unique<MemoryPages>(buffers.back()),
                                                          Testing::pageBytes, maxPages));
        }
        return TraceMerger{std::move(streams)};
    }

    static PageBuilder PageAt(const std::vector<std::uint64_t>& times)
    {
        PageBuilder page{times.front()};
        for (const std::uint64_t when : times) {
            page.Add(when, Record(id, 1));
        }
        return page;
    }

    void Put(std::size_t cpu, const std::vector<std::uint64_t>& times)
    {
        buffers[cpu]->push_back(PageAt(times).Page());
    }

    std::vector<std::shared_ptr<MemoryPages::Queue>> buffers;
    Times sink;
};

TEST_F(TraceMergerTest, ReleasesTheRecordsOfAllCpusInTheOrderOfTheirTimes)
{
    TraceMerger merger = Merger(3);
    Put(0, {10, 40, 41});
    Put(0, {50, 80});
    Put(1, {20, 30, 70});
    Put(2, {15});
    merger.Round(forever, sink);
    EXPECT_THAT(sink.times, ElementsAre(10, 15, 20, 30, 40, 41, 50, 70, 80));
    EXPECT_THAT(sink.ids, testing::Each(id));
    EXPECT_EQ(merger.TakeLate(), 0U);
    EXPECT_FALSE(merger.Holding());
}

TEST_F(TraceMergerTest, HoldsBackWhatIsNotOlderThanTheRound)
{
    TraceMerger merger = Merger(2);
    Put(0, {10, 30});
    EXPECT_EQ(merger.Round(20, sink), 20U);
    EXPECT_THAT(sink.Take(), ElementsAre(10));
    EXPECT_TRUE(merger.Holding());

    Put(1, {25});  // recorded earlier than 30, seen later
    merger.Round(31, sink);
    EXPECT_THAT(sink.Take(), ElementsAre(25, 30));
    EXPECT_EQ(merger.TakeLate(), 0U);
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
    EXPECT_FALSE(merger.IsBehind());
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

TEST_F(TraceMergerTest, CountsWhatComesTooLate)
{
    TraceMerger merger = Merger(2);
    Put(0, {100});
    merger.Round(200, sink);
    Put(1, {50});
    merger.Round(300, sink);
    EXPECT_THAT(sink.Take(), ElementsAre(100, 50));
    EXPECT_EQ(merger.TakeLate(), 1U);
}

TEST_F(TraceMergerTest, AddsUpLongGapsBetweenRecords)
{
    constexpr std::uint64_t hour = 3'600'000'000'000;
    TraceMerger merger = Merger(1);
    Put(0, {1, hour, hour + 1});
    merger.Round(forever, sink);
    EXPECT_THAT(sink.Take(), ElementsAre(1, hour, hour + 1));
}

TEST_F(TraceMergerTest, MarksTheFirstRecordAfterALoss)
{
    TraceMerger merger = Merger(1);
    Put(0, {10, 11});
    buffers[0]->push_back(PageAt({20, 21}).AfterLoss().Page());
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
        {"more bytes than a page has", 8, 0x7ffffff, {}},
        {"a record that reaches past the end", 16 + 12, 28, {10}},
        {"a length that leads backwards", 16 + 12, 0, {10}},
        {"fewer bytes than the records need", 8, 16, {10}},
    };
    for (const Damage& damage : cases) {
        TraceMerger merger = Merger(1);
        Testing::Bytes page = PageAt({10, 11}).Page();
        Testing::Put(page, damage.offset, damage.value);
        buffers.back()->push_back(page);
        buffers.back()->push_back(PageAt({20}).Page());
        merger.Round(forever, sink);
        auto expected = damage.left;
        expected.push_back(20);
        EXPECT_EQ(sink.Take(), expected) << damage.what;
        EXPECT_EQ(merger.TakeLostPages(), 1U) << damage.what;
    }
}

TEST_F(TraceMergerTest, TakesNothingFromAPageWithoutRecordsOrWithoutAHeader)
{
    TraceMerger merger = Merger(1);
    buffers[0]->push_back(PageBuilder{5}.Page());
    buffers[0]->push_back(Testing::Bytes(3));
    merger.Drain(sink);
    EXPECT_THAT(sink.times, IsEmpty());
}

}  // namespace
}  // namespace Engine
