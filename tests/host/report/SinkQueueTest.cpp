// SPDX-License-Identifier: Apache-2.0
#include "host/report/SinkQueue.h"

#include <gmock/gmock.h>

#include <condition_variable>
#include <mutex>
#include <stdexcept>

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
struct Written {
    void WaitFor(std::size_t count)
    {
        std::unique_lock lock(mutex);
        EXPECT_TRUE(changed.wait_for(lock, farTooLong, [&] { return lines.size() >= count; }));
    }

    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::string> lines;
    std::mutex gate;  // held by the test: the sink is stuck behind what it wrote
};

class CollectingSink : public AlarmSink {
public:
    explicit CollectingSink(Written& written) : written(written) {}
    std::string Name() const override { return "collecting"; }
    std::error_code Write(std::string_view line, WritePatience& /*patience*/) override
    {
        {
            const std::lock_guard lock(written.mutex);
            written.lines.emplace_back(line);
            written.changed.notify_all();
        }
        const std::lock_guard passed(written.gate);
        return line == "{\"throw\":1}\n" ? throw std::runtime_error("sink failed") : std::error_code{};
    }

private:
    Written& written;
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
    // What a counter has grown by since the case began.
    std::uint64_t Grown(const std::string& name) { return SDK::Counters::Get(name).load() - before[name]; }
    static std::shared_ptr<AlarmDocument> Document(const std::string& text) { return AlarmDocument::Make(text, 1); }

    Written written;
    SmallPipe pipe;
    std::map<std::string, std::uint64_t> before = SDK::Counters::Snapshot();
};

TEST_F(SinkQueueTest, AFullQueueLosesWhatDoesNotFitAndTheEndWritesTheRestInOrder)
{
    {
        SinkQueue queue(std::make_unique<CollectingSink>(written), 3);
        std::unique_lock stuck(written.gate);
        queue.Push(Document("{}"));
        written.WaitFor(1);  // the sink is inside its first write, the queue is empty
        for (const char* text : {"{\"n\":1}", "{\"throw\":1}", "{\"n\":3}", "{\"n\":4}", "{\"n\":5}"}) {
            queue.Push(Document(text));
        }
        EXPECT_EQ(Grown("alarms.lost_collecting"), 2U);
        queue.End(farTooLong);
        queue.Push(Document("{\"late\":1}"));
        stuck.unlock();
        written.WaitFor(4);
    }
    EXPECT_THAT(written.lines, ElementsAre("{}\n", "{\"n\":1}\n", "{\"throw\":1}\n", "{\"n\":3}\n"));
    EXPECT_EQ(Grown("alarms.lost_collecting"), 4U);
    EXPECT_EQ(Grown("alarms.sent"), 3U);
    EXPECT_EQ(Grown("alarms.lost"), 4U);
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
    EXPECT_EQ(Grown("alarms.lost_pipe"), 2U);
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
    written.WaitFor(count);  // all of them, while the pipe is full and nobody reads it
    task.UnInit();           // would never return if it waited for the pipe

    EXPECT_GE(Grown("alarms.lost_pipe"), count - 8);  // two pages hold eight of these lines at most
    EXPECT_EQ(Grown("alarms.lost"), Grown("alarms.lost_pipe"));
    EXPECT_EQ(Grown("alarms.sent"), count - Grown("alarms.lost_pipe"));
}

}  // namespace
