// SPDX-License-Identifier: Apache-2.0
#include "host/report/SinkQueue.h"

#include <gmock/gmock.h>

#include <functional>
#include <future>
#include <stdexcept>

#include "host/report/LineStream.h"
#include "host/report/ReportTasks.h"
#include "host/report/SmallPipe.h"

namespace {

using namespace Engine;
using namespace std::chrono_literals;
using testing::ElementsAre;

constexpr auto farTooLong = 60s;  // for conditions that hold in milliseconds unless something is broken

class TestSink : public AlarmSink {
public:
    using Action = std::function<std::error_code(std::string_view line, const StopDeadline& deadline)>;

    TestSink(std::string name, Action action) : name(std::move(name)), action(std::move(action)) {}
    std::string Name() const override { return name; }
    std::error_code Write(std::string_view line, const StopDeadline& deadline) override
    {
        return action(line, deadline);
    }

private:
    std::string name;
    Action action;
};

std::unique_ptr<AlarmSink> OntoPipe(const SmallPipe& pipe)
{
    std::error_code error;
    auto stream = std::make_shared<LineStream>(LineStream::Duplicate(pipe.writer.Get(), error));
    return std::make_unique<TestSink>("pipe", [stream](std::string_view line, const StopDeadline& deadline) {
        return stream->Write(line, deadline);
    });
}

class SinkQueueTest : public testing::Test {
protected:
    // What a counter has grown by since the case began.
    std::uint64_t Grown(const std::string& name) { return SDK::Counters::Get(name).load() - before[name]; }
    static void Push(SinkQueue& queue, const std::string& text) { queue.Push(AlarmDocument::Make(text, 1)); }

    SmallPipe pipe;
    std::map<std::string, std::uint64_t> before = SDK::Counters::Snapshot();
};

TEST_F(SinkQueueTest, AFullQueueLosesWhatDoesNotFitAndTheEndWritesTheRestInOrder)
{
    std::promise<void> isStuck;
    std::promise<void> released;
    std::vector<std::string> lines;
    const auto write = [&](std::string_view line, const StopDeadline&) {
        lines.emplace_back(line);
        if (lines.size() == 1) {
            isStuck.set_value();
            released.get_future().wait();
        }
        return line == "{\"throw\":1}\n" ? throw std::runtime_error("sink failed") : std::error_code{};
    };
    {
        SinkQueue queue(std::make_unique<TestSink>("full", write), 3);
        Push(queue, "{}");
        isStuck.get_future().wait();  // inside its first write, the queue is empty
        for (const char* text : {"{\"n\":1}", "{\"throw\":1}", "{\"n\":3}", "{\"n\":4}", "{\"n\":5}"}) {
            Push(queue, text);
        }
        EXPECT_EQ(Grown("alarms.lost_full"), 2U);
        queue.End(farTooLong);
        Push(queue, "{\"late\":1}");
        released.set_value();
    }
    EXPECT_THAT(lines, ElementsAre("{}\n", "{\"n\":1}\n", "{\"throw\":1}\n", "{\"n\":3}\n"));
    EXPECT_EQ(Grown("alarms.lost_full"), 4U);
    EXPECT_EQ(Grown("alarms.sent"), 3U);
    EXPECT_EQ(Grown("alarms.lost"), 4U);
}

TEST_F(SinkQueueTest, AReaderThatWentAwayCostsAlarmsAndNotTheProcess)
{
    auto sink = OntoPipe(pipe);
    pipe.reader.Reset();
    {
        SinkQueue queue(std::move(sink));
        Push(queue, "{}");
        Push(queue, "{}");
        queue.End(farTooLong);
    }
    EXPECT_EQ(Grown("alarms.lost_pipe"), 2U);
}

TEST_F(SinkQueueTest, ABlockedSinkDelaysNeitherAnotherSinkNorTheReporterNorTheStop)
{
    constexpr std::size_t count = 500;
    std::size_t written = 0;
    std::promise<void> allWritten;
    std::vector<std::unique_ptr<AlarmSink>> sinks;
    sinks.push_back(OntoPipe(pipe));
    sinks.push_back(std::make_unique<TestSink>("quick", [&](std::string_view, const StopDeadline&) {
        if (++written == count) {
            allWritten.set_value();
        }
        return std::error_code{};
    }));
    DataReportTask task(std::move(sinks));
    const Framework::DataMessage alarm("2", "{\"text\":\"" + std::string(1000, 'x') + "\"}");
    for (std::size_t n = 0; n < count; ++n) {
        EXPECT_EQ(task.HandleMsg(&alarm), 0);
    }
    EXPECT_EQ(allWritten.get_future().wait_for(farTooLong), std::future_status::ready) << "while the pipe is full";
    task.UnInit();  // would never return if it waited for the pipe

    // Two pages hold eight of these lines at most. Each alarm counts once, by the worst of its sinks.
    EXPECT_GE(Grown("alarms.lost_pipe"), count - 8);
    EXPECT_EQ(Grown("alarms.lost"), Grown("alarms.lost_pipe"));
    EXPECT_EQ(Grown("alarms.sent"), count - Grown("alarms.lost_pipe"));
}

}  // namespace
