// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/TraceMerger.h"

#include <gmock/gmock.h>

#include <deque>
#include <memory>
#include <tuple>
#include <utility>
#include <vector>

#include "host/ftrace/CpuStream.h"
#include "tests/support/PageBuilder.h"

namespace Engine {
namespace {

using testing::ElementsAre;

class TraceMergerTest : public testing::Test, protected RecordSink {
protected:
    TraceMerger Merger(std::size_t cpus, std::size_t maxPages = 8)
    {
        std::vector<std::unique_ptr<RecordStream>> streams;
        buffers = std::vector<std::deque<Support::Bytes>>(cpus);
        for (const auto& pages : buffers) {
            streams.push_back(std::make_unique<CpuStream>(std::make_unique<Support::MemoryPages>(pages),
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
        return buffers[cpu].emplace_back(page.Page(afterLoss));
    }
    void OnRecord(const RawRecord& record) override
    {
        times.push_back(record.when);
        EXPECT_EQ(record.afterLoss, record.when == lossBefore) << record.when;
    }
    std::vector<std::uint64_t> Take() { return std::exchange(times, {}); }

    std::vector<std::deque<Support::Bytes>> buffers;
    std::vector<std::uint64_t> times;
    std::uint64_t lossBefore = 0;
};

TEST_F(TraceMergerTest, ReleasesTheRecordsOfAllCpusInTheOrderOfTheirTimesAndMarksTheFirstAfterALoss)
{
    constexpr std::uint64_t hour = 3'600'000'000'000;
    TraceMerger merger = Merger(3);
    Put(0, {10, 40, 41});
    Put(0, {50, 80}, true);
    Put(1, {20, 30, hour, hour + 1});
    Put(2, {15});
    lossBefore = 50;
    merger.Round(UINT64_MAX, *this);
    EXPECT_THAT(Take(), ElementsAre(10, 15, 20, 30, 40, 41, 50, 80, hour, hour + 1));
    EXPECT_FALSE(merger.Holding());
    EXPECT_EQ(merger.TakeLostPages(), 1U) << "how many is not known";
}

TEST_F(TraceMergerTest, HoldsBackWhatIsNotOlderThanTheRoundAndCountsWhatComesTooLate)
{
    TraceMerger merger = Merger(2);
    Put(0, {10, 30});
    EXPECT_EQ(merger.Round(20, *this), 20U);
    EXPECT_THAT(Take(), ElementsAre(10));
    Put(1, {25});  // recorded earlier than 30, seen later
    merger.Round(31, *this);
    EXPECT_THAT(Take(), ElementsAre(25, 30));
    EXPECT_EQ(merger.TakeLate(), 0U);
    Put(1, {29});
    merger.Round(40, *this);
    EXPECT_THAT(Take(), ElementsAre(29));
    EXPECT_EQ(merger.TakeLate(), 1U);
}

TEST_F(TraceMergerTest, ReleasesOnlyWhatWasReadOfABufferThatItCannotEmpty)
{
    TraceMerger merger = Merger(2, 2);
    for (const std::uint64_t begin : {10U, 20U, 30U, 40U}) {
        Put(0, {begin, begin + 5});
    }
    Put(1, {22, 60});
    EXPECT_EQ(merger.Round(UINT64_MAX, *this), 20U);
    EXPECT_THAT(Take(), ElementsAre(10, 15));
    EXPECT_TRUE(merger.IsBehind());
    merger.Drain(*this);
    EXPECT_THAT(Take(), ElementsAre(20, 22, 25, 30, 35, 40, 45, 60));
    for (int page = 0; page < 5; ++page) {  // all claim the same time
        Put(0, {70, 70});
    }
    merger.Drain(*this);
    EXPECT_EQ(Take().size(), 10U);
}

TEST_F(TraceMergerTest, GivesUpADamagedPageAtThatPlaceOnly)
{
    using Damage = std::tuple<const char*, std::size_t, std::uint64_t, std::vector<std::uint64_t>>;
    // What the page claims, and what must be left. Each record takes a header and two words from offset 16 on.
    for (const auto& [what, offset, value, left] : {Damage{"more bytes than a page has", 8, 0x7ffffff, {20}},
                                                    Damage{"a record that reaches past the end", 16 + 12, 28, {10, 20}},
                                                    Damage{"a length that leads backwards", 16 + 12, 0, {10, 20}},
                                                    Damage{"fewer bytes than the records need", 8, 16, {10, 20}}}) {
        TraceMerger merger = Merger(1);
        Support::Put(Put(0, {10, 11}), offset, value);
        Put(0, {20});
        merger.Round(UINT64_MAX, *this);
        EXPECT_EQ(Take(), left) << what;
        EXPECT_EQ(merger.TakeLostPages(), 1U) << what;
    }
}

}  // namespace
}  // namespace Engine
