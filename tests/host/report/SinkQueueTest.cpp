// SPDX-License-Identifier: Apache-2.0
#include "host/report/SinkQueue.h"

#include <gmock/gmock.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <vector>

#include "host/report/DataReportTask.h"
#include "host/report/LineStream.h"
#include "host/report/SmallPipe.h"
#include "host/sdk/Counters.h"

namespace {

using namespace Engine;
using namespace std::chrono_literals;
using testing::ElementsAre;

constexpr auto farTooLong = 60s;  // for conditions that hold in milliseconds unless something is broken

// What a sink wrote, for the test to wait on.
class Written {
public:
    void Add(std::string_view line)
    {
        const std::lock_guard lock(mutex);
        lines.emplace_back(line);
        changed.notify_all();
    }

    std::vector<std::string> WaitFor(std::size_t count)
    {
        std::unique_lock lock(mutex);
        changed.wait_for(lock, farTooLong, [this, count] { return lines.size() >= count; });
        return lines;
    }

private:
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> lines;
};

class CollectingSink : public AlarmSink {
public:
    explicit CollectingSink(Written& written) : written(written) {}
    std::string Name() const override { return "collecting"; }
    std::error_code Write(std::string_view line, WritePatience& /*patience*/) override
    {
        written.Add(line);
        if (line == "{\"throw\":1}\n") {
            throw std::runtime_error("sink failed");
        }
        return {};
    }

private:
    Written& written;
};

// Blocks in its first write until the test lets it go on.
class GatedSink : public CollectingSink {
public:
    GatedSink(Written& written, std::shared_future<void> gate) : CollectingSink(written), gate(std::move(gate)) {}
    std::error_code Write(std::string_view line, WritePatience& patience) override
    {
        const std::error_code error = CollectingSink::Write(line, patience);
        gate.wait();
        return error;
    }

private:
    std::shared_future<void> gate;
};

// A pipe that nobody reads.
class PipeSink : public AlarmSink {
public:
    explicit PipeSink(const SmallPipe& pipe) : stream(LineStream::Duplicate(pipe.writer.Get(), error)) {}
    std::string Name() const override { return "pipe"; }
    std::error_code Write(std::string_view line, WritePatience& patience) override
    {
        return stream.Write(line, patience);
    }

private:
    std::error_code error;
    LineStream stream;
};

class SinkQueueTest : public testing::Test {
protected:
    static std::uint64_t Lost(const std::string& sink) { return SDK::Counters::Get("alarms.lost_" + sink).load(); }
    static std::shared_ptr<AlarmDocument> Document(const std::string& text) { return AlarmDocument::Make(text, 1); }

    Written written;
    SmallPipe pipe;
    const std::uint64_t sentBefore = SDK::Counters::Get(SDK::CounterName::alarmsSent);
    const std::uint64_t lostBefore = SDK::Counters::Get(SDK::CounterName::alarmsLost);
    const std::uint64_t collectingLostBefore = Lost("collecting");
    const std::uint64_t pipeLostBefore = Lost("pipe");
};

TEST_F(SinkQueueTest, AFullQueueLosesWhatDoesNotFitAndKeepsTheOrderOfTheRest)
{
    std::promise<void> gate;
    {
        SinkQueue queue(std::make_unique<GatedSink>(written, gate.get_future().share()), 2);
        queue.Push(Document("{\"n\":0}"));
        written.WaitFor(1);  // the sink is inside its first write, the queue is empty
        for (int n = 1; n <= 5; ++n) {
            queue.Push(Document("{\"n\":" + std::to_string(n) + "}"));
        }
        EXPECT_EQ(Lost("collecting") - collectingLostBefore, 3U);
        gate.set_value();
        written.WaitFor(3);
        queue.End(farTooLong);
    }
    EXPECT_THAT(written.WaitFor(3), ElementsAre("{\"n\":0}\n", "{\"n\":1}\n", "{\"n\":2}\n"));
    EXPECT_EQ(SDK::Counters::Get(SDK::CounterName::alarmsSent) - sentBefore, 3U);
    EXPECT_EQ(SDK::Counters::Get(SDK::CounterName::alarmsLost) - lostBefore, 3U);
}

TEST_F(SinkQueueTest, TheEndWritesWhatIsQueued)
{
    {
        SinkQueue queue(std::make_unique<CollectingSink>(written));
        for (int n = 0; n < 1000; ++n) {
            queue.Push(Document("{}"));
        }
        queue.End(farTooLong);
        queue.Push(Document("{\"late\":1}"));
    }
    EXPECT_EQ(written.WaitFor(1000).size(), 1000U);
    EXPECT_EQ(Lost("collecting") - collectingLostBefore, 1U);
}

TEST_F(SinkQueueTest, ASinkThatThrowsLosesThatAlarmOnly)
{
    {
        SinkQueue queue(std::make_unique<CollectingSink>(written));
        queue.Push(Document("{\"throw\":1}"));
        queue.Push(Document("{}"));
        queue.End(farTooLong);
    }
    EXPECT_EQ(written.WaitFor(2).size(), 2U);
    EXPECT_EQ(SDK::Counters::Get(SDK::CounterName::alarmsSent) - sentBefore, 1U);
    EXPECT_EQ(Lost("collecting") - collectingLostBefore, 1U);
}

TEST_F(SinkQueueTest, AReaderThatWentAwayCostsAlarmsAndNotTheProcess)
{
    auto sink = std::make_unique<PipeSink>(pipe);
    pipe.reader.Reset();
    {
        SinkQueue queue(std::move(sink));
        queue.Push(Document("{}"));
        queue.Push(Document("{}"));
        queue.End(farTooLong);
    }
    EXPECT_EQ(Lost("pipe") - pipeLostBefore, 2U);
}

TEST_F(SinkQueueTest, ABlockedSinkDelaysNeitherAnotherSinkNorTheReporterNorTheStop)
{
    constexpr std::size_t count = 500;
    std::vector<std::unique_ptr<AlarmSink>> sinks;
    sinks.push_back(std::make_unique<PipeSink>(pipe));
    sinks.push_back(std::make_unique<CollectingSink>(written));
    DataReportTask task(std::move(sinks));
    const Framework::DataMessage alarm("2", "{\"text\":\"" + std::string(1000, 'x') + "\"}");
    for (std::size_t n = 0; n < count; ++n) {
        EXPECT_EQ(task.HandleMsg(&alarm), 0);
    }
    EXPECT_EQ(task.HandleMsg(std::make_unique<Framework::DataMessage>("1", "{}").get()), 0);
    EXPECT_EQ(written.WaitFor(count).size(), count);  // all of them, while the pipe is full and nobody reads it
    task.UnInit();                                    // would never return if it waited for the pipe

    const std::uint64_t blocked = Lost("pipe") - pipeLostBefore;
    EXPECT_GE(blocked, count - 8);  // two pages hold eight of these lines at most
    EXPECT_EQ(SDK::Counters::Get(SDK::CounterName::alarmsLost) - lostBefore, blocked);
    EXPECT_EQ(SDK::Counters::Get(SDK::CounterName::alarmsSent) - sentBefore, count - blocked);
}

}  // namespace
