// SPDX-License-Identifier: Apache-2.0
// An alarm's way out: document, queue of a sink, stream.
#include <Poco/AutoPtr.h>
#include <Poco/Pipe.h>
#include <Poco/PipeStream.h>
#include <Poco/Util/MapConfiguration.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>

#include <filesystem>
#include <functional>
#include <future>
#include <semaphore>
#include <stdexcept>

#include "host/report/AlarmFormat.h"
#include "host/report/ReportTasks.h"
#include "host/report/Sinks.h"
#include "host/sdk/Config.h"
#include "host/sdk/JsonMembers.h"
#include "host/sdk/LineStream.h"
#include "host/sdk/Redaction.h"
#include "host/sdk/TraceTime.h"
#include "sdk/JsonUtils.h"
#include "support/FakeSystem.h"
#include "support/TemporaryDirectory.h"

namespace {

using namespace Engine;
using SDK::LineStream;
using namespace std::chrono_literals;

std::error_code error;                                            // of the open before
const std::string longLine = std::string(1'000'000, 'x') + "\n";  // more than a pipe or a socket takes at once
constexpr auto farTooLong = 60s;  // for conditions that hold in milliseconds unless something is broken

struct TestSink : AlarmSink {
    TestSink(std::string name, auto action) : name(std::move(name)), action(std::move(action)) {}
    std::string Name() const override { return name; }
    std::error_code Write(std::string_view line, const StopDeadline& end) override { return action(line, end); }

    std::string name;
    std::function<std::error_code(std::string_view line, const StopDeadline& end)> action;
};

std::unique_ptr<AlarmSink> Onto(const Poco::Pipe& pipe, const std::string& name)
{
    auto stream = std::make_shared<LineStream>(LineStream::Duplicate(pipe.writeHandle(), error));
    return std::make_unique<TestSink>(name, std::bind_front(&LineStream::Write, stream));
}

std::shared_ptr<AlarmDocument> Made(const std::string& text)
{
    return AlarmDocument::Make(Alarm::Parse(text).value(), 1);
}

struct SinkQueueTest : testing::Test {
    // What a counter has grown by since the case began.
    std::uint64_t Grown(const std::string& name) { return SDK::Counters::Get(name).load() - before[name]; }

    std::map<std::string, std::uint64_t> before = SDK::Counters::Snapshot();
};

TEST(LineStreamTest, ABlockedReaderHoldsTheWriterUntilTheDeadlineAndTheNextLineStartsAnew)
{
    for (const bool mayBeNonBlocking : {true, false}) {
        Poco::Pipe pipe;
        constexpr std::size_t room = 8192;  // two pages: the only one would be taken up by a single byte
        ::fcntl(pipe.writeHandle(), F_SETPIPE_SZ, room);
        LineStream stream = mayBeNonBlocking
                                ? LineStream::Duplicate(pipe.writeHandle(), error)
                                : LineStream(SDK::FileDescriptor(::fcntl(pipe.writeHandle(), F_DUPFD_CLOEXEC, 3)));
        StopDeadline ending;
        auto write = std::async(std::launch::async, [&] { return stream.Write(longLine, ending); });
        ending.Set(10ms);
        EXPECT_EQ(write.get(), std::errc::timed_out);

        auto read = std::async(std::launch::async, [&pipe] {
            Poco::PipeInputStream all(pipe);
            return std::string(std::istreambuf_iterator<char>(all), {});
        });
        EXPECT_FALSE(stream.Write(longLine, StopDeadline{}));
        EXPECT_FALSE(stream.Write("{}\n", StopDeadline{}));
        EXPECT_EQ(::fcntl(pipe.writeHandle(), F_GETFL) & O_NONBLOCK, 0) << "other programs share it";
        stream = {};
        pipe.close(Poco::Pipe::CLOSE_WRITE);
        EXPECT_TRUE(read.get() == std::string(room, 'x') + "\n" + longLine + "{}\n");
    }
}

TEST(LineStreamTest, ASocketIsWrittenWithoutBlockingItAFileAppendedToAndAFullDiskIsAnError)
{
    std::array<int, 2> ends{};
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()), 0);
    const SDK::FileDescriptor near(ends[0]);
    const SDK::FileDescriptor far(ends[1]);
    StopDeadline over;
    over.Set(0ms);
    EXPECT_EQ(LineStream::Duplicate(near.Get(), error).Write(longLine, over), std::errc::timed_out);

    const TemporaryDirectory directory;
    LineStream file = LineStream::Append(directory.Write("alarms", "before\n").c_str(), error);
    EXPECT_FALSE(file.Write("{}\n", over)) << "what takes bytes at once needs no time";
    EXPECT_EQ(directory.Read("alarms"), "before\n{}\n");
    EXPECT_EQ(LineStream::Append("/dev/full", error).Write("{}\n", over), std::errc::no_space_on_device);
}

TEST(SinksTest, AFileIsRenamedWhenItIsFullMadeAnewWhenItHasGoneAndNoSymbolicLinkIsFollowed)
{
    const TemporaryDirectory directory;
    const std::string path = directory.Path() + "/alarms";
    Poco::AutoPtr<Poco::Util::MapConfiguration> settings{new Poco::Util::MapConfiguration};
    settings->setString(SDK::Config::alarmsFile, path);
    settings->setUInt64(SDK::Config::alarmsMaxBytes, 8);
    settings->setUInt(SDK::Config::alarmsKept, 2);
    const std::unique_ptr<AlarmSink> sink = std::move(MakeSinks(*settings).front());
    for (const char* line : {"1\n", "22345678\n", "32345678\n", "4\n", "5\n"}) {
        EXPECT_FALSE(sink->Write(line, {}));
    }
    EXPECT_EQ(directory.Read("alarms.2"), "1\n22345678\n");
    EXPECT_EQ(directory.Read("alarms.1"), "32345678\n");
    EXPECT_EQ(directory.Read("alarms"), "4\n5\n");

    std::filesystem::remove(path);
    EXPECT_FALSE(sink->Write("6\n", {}));
    EXPECT_EQ(directory.Read("alarms"), "6\n");
    std::filesystem::rename(path, path + ".1");
    std::filesystem::create_symlink(path + ".1", path);
    EXPECT_EQ(sink->Write("7\n", {}), std::errc::too_many_symbolic_link_levels);
    EXPECT_EQ(directory.Read("alarms.1"), "6\n");
}

TEST_F(SinkQueueTest, AFullQueueLosesWhatDoesNotFitAndTheEndWritesTheRestInOrder)
{
    std::promise<void> isStuck;
    std::promise<void> released;
    std::string text;
    const auto write = [&](std::string_view line, const StopDeadline&) {
        if (text.empty()) {
            isStuck.set_value();
            released.get_future().wait();
        }
        text += line;
        return line == "{\"n\":2}\n" ? throw std::runtime_error("sink failed") : std::error_code{};
    };
    {
        SinkQueue queue(std::make_unique<TestSink>("full", write), 3);
        queue.Push(Made("{}"));
        isStuck.get_future().wait();  // inside its first write, the queue is empty
        for (const char* document : {"{\"n\":1}", "{\"n\":2}", "{\"n\":3}", "{\"n\":4}", "{\"n\":5}"}) {
            queue.Push(Made(document));
        }
        queue.End(farTooLong);
        queue.Push(Made("{\"late\":1}"));
        EXPECT_EQ(Grown("alarms.lost_full"), 3U);
        released.set_value();
    }
    EXPECT_EQ(text, "{}\n{\"n\":1}\n{\"n\":2}\n{\"n\":3}\n");
    EXPECT_EQ(Grown("alarms.sent"), 3U);
    EXPECT_EQ(Grown("alarms.lost"), 4U);
}

TEST_F(SinkQueueTest, WhatASinkRefusesIsTriedAgainBeforeWhatComesBehind)
{
    std::promise<void> hasAll;
    std::string text;
    int tries = 0;
    SinkQueue queue(std::make_unique<TestSink>("late", [&](std::string_view line, const StopDeadline&) {
        if (++tries < 3) {
            return std::make_error_code(std::errc::no_space_on_device);
        }
        text += line;
        if (text.ends_with("2}\n")) {
            hasAll.set_value();
        }
        return std::error_code{};
    }));
    queue.Push(Made("{\"n\":1}"));
    queue.Push(Made("{\"n\":2}"));
    ASSERT_EQ(hasAll.get_future().wait_for(farTooLong), std::future_status::ready);
    EXPECT_EQ(text, "{\"n\":1}\n{\"n\":2}\n");
    EXPECT_EQ(Grown("alarms.lost"), 0U);
    EXPECT_EQ(Grown("alarms.deferred"), 2U) << "each is shown once";
}

TEST_F(SinkQueueTest, ABlockedSinkOrOneWithoutReaderDelaysNeitherAnotherSinkNorTheReporterNorTheStop)
{
    constexpr std::size_t count = 500;
    std::counting_semaphore<> written(0);
    Poco::Pipe blocked;
    Poco::Pipe broken;
    std::vector<std::unique_ptr<AlarmSink>> sinks;
    sinks.push_back(Onto(blocked, "blocked"));
    sinks.push_back(Onto(broken, "broken"));
    sinks.push_back(std::make_unique<TestSink>("quick", [&written](auto&&...) {
        written.release();
        return std::error_code{};
    }));
    broken.close(Poco::Pipe::CLOSE_READ);
    DataReportTask task(std::move(sinks));
    const Framework::DataMessage alarm("2", "{\"text\":\"" + std::string(1000, 'x') + "\"}");
    for (std::size_t n = 0; n < count; ++n) {
        EXPECT_EQ(task.HandleMsg(&alarm), 0);
        ASSERT_TRUE(written.try_acquire_for(farTooLong)) << "also while the pipe is full";
    }
    task.UnInit();  // would never return if it waited for the pipe

    EXPECT_GT(Grown("alarms.lost_blocked"), 0U);
    EXPECT_EQ(Grown("alarms.lost_broken"), count);
    EXPECT_EQ(Grown("alarms.lost"), count) << "each alarm counts once, by the worst of its sinks";
}

TEST_F(SinkQueueTest, HostileTextStaysOnePrintableLineAndWhatIsNoJsonObjectIsDroppedAndCounted)
{
    for (const auto& [text, written] :
         {std::pair{"\n", "\\n"}, {"\x1f", "\\u001f"}, {"\x7f", "\\u007f"}, {"\xff", "\\ufffd"}}) {
        EXPECT_EQ(Made("{\"a\": \"" + std::string(text) + "\"}")->Line(), "{\"a\":\"" + std::string(written) + "\"}\n");
    }
    const std::vector<std::string> texts{"", "[1]", "{\"a\":1} {\"b\":2}", std::string(100'000, '[')};
    DataReportTask task({});
    for (const std::string& text : texts) {
        const Framework::DataMessage alarm("2", text);
        EXPECT_EQ(task.HandleMsg(&alarm), -1);
    }
    EXPECT_EQ(Grown("alarms.lost"), texts.size());
}

struct FakeNames final : SDK::ContainerNames {
    bool IsAwaited(const std::string& /*id*/) const override { return areAwaited; }
    std::vector<EngineState> Engines() const override { return {}; }
    std::shared_ptr<const ContainerInfo> Find(const std::string& id) const override
    {
        return id == known ? std::make_shared<ContainerInfo>(ContainerInfo{id, "web", "sha256:1", "nginx", {}, {}})
                           : nullptr;
    }

    bool areAwaited = true;
    std::string known;
};

// The document goes in byte for byte; what is not known is null, and what others chose breaks no line.
TEST(AlarmFormatTest, AnEnvelopeTellsOfProcessAndContainerAndATextIsALineForPeople)
{
    Support::FakeSystem proc;
    FakeNames names;
    names.known = "c1";
    proc.Put(10, {{1, "sh"}, "c1", "/bin/sh\n", {}});
    proc.Put(11, {{10, "a"}, "c1", "/bin/a", {}});
    proc.Put(12, {{11, "b"}, "c1", "/bin/b", {}});
    const std::string alarm =
        R"({"event_name":"Shocker attack\u001b[2J","container_name":"web","occur_time":1700000000,)"
        R"("forensic_info":{"sys_call":"setns"},"process_info":[{"process_name":"b","process_pid":12}],)"
        R"("resource_info":{"container_id":"c1"}})";
    const Json::Value document = SDK::JsonMembers::Parse(alarm).value_or(Json::Value{});
    SDK::TraceTime::Scope event;
    event.MoveTo(std::chrono::nanoseconds{1});
    const auto context = AlarmContext::Take({alarm, document}, proc);
    AlarmFormat envelopes(AlarmFormat::Parse("envelope", true));
    const std::string text = envelopes.Format(alarm, document, context.get(), &names, "");
    EXPECT_TRUE(text.ends_with(",\"alarm\":" + alarm + "}")) << text;
    Json::Value envelope;
    ASSERT_EQ(SDK::JsonUtils::ParseJsonStr(text.data(), text.size(), envelope), 0);
    EXPECT_EQ(envelope["process"]["exe"], "/bin/b");
    EXPECT_EQ(envelope["process"]["cwd"], Json::Value{});
    EXPECT_EQ(envelope["process"]["ancestors"][0]["exe"], "/bin/a");
    EXPECT_EQ(envelope["process"]["ancestors"][1]["exe"], "/bin/sh\n");
    EXPECT_EQ(envelope["process"]["ancestors"].size(), 2U) << "process 1 is the host's";
    EXPECT_EQ(envelope["container"]["image"], "nginx");
    EXPECT_EQ(envelope["container"]["pod"], Json::Value{});
    EXPECT_TRUE(envelope["time"].isString());
    EXPECT_EQ(envelope["agent"]["policy_sha256"], Json::Value{});
    EXPECT_EQ(AlarmContext::Take({"{}", Json::objectValue}, proc)->tid, 0);

    EXPECT_EQ(AlarmFormat(AlarmFormat::Parse("auto", false)).Format(alarm, document, nullptr, nullptr, ""), alarm);
    AlarmFormat texts(AlarmFormat::Parse("auto", true));
    EXPECT_EQ(texts.Format(alarm, document, nullptr, nullptr, ""),
              "2023-11-14T22:13:20Z  \033[1;31mShocker attack\\x1b[2J          \033[0m  web                       "
              "setns  b[12]");
    EXPECT_EQ(texts.Format("{}", Json::Value(Json::objectValue), nullptr, nullptr, "").find('\n'), std::string::npos);
}

class ExceptionsTest : public SinkQueueTest {
protected:
    ExceptionsTest()
    {
        auto record = std::make_shared<ContainerInfo>(ContainerInfo{"c1", "web", "sha256:1", "nginx:1", {}, {}});
        record->labels = {{"team", "shop"}, {"image", "mine"}};
        record->imageDigest = "nginx@sha256:2";
        proc.records["c1"] = record;
        proc.Put(10, {{1, "a"}, "c1", "/bin/a", {}});
        proc.Put(11, {{1, "b"}, "c1", "/bin/b", {}});
        proc.Put(12, {{1, "c"}, "c2", "/bin/a", {}});
    }

    static std::string Alarm(const std::string& processes, const std::string& container = "c1",
                             const std::string& name = "Shocker attack")
    {
        return R"({"event_name":")" + name + R"(","process_info":[)" + processes +
               R"(],"resource_info":{"container_id":")" + container + "\"}}";
    }
    static std::string By(int pid) { return R"({"process_pid":)" + std::to_string(pid) + "}"; }

    // Which exception holds for an alarm, of these and one that holds for nothing; empty: none does.
    std::string Held(const SDK::ExceptionRule& rule, const std::string& text)
    {
        const Engine::Alarm alarm{text, SDK::JsonMembers::Parse(text).value_or(Json::objectValue)};
        Exceptions exceptions;
        exceptions.Replace({{"none", "another", "", "", {}, "", {}}, rule});
        const auto found = exceptions.Find(alarm, *AlarmContext::Take(alarm, proc), proc);
        return found ? found->name + (found->mustBeRefused ? " refused" : "") : "";
    }

    Support::FakeSystem proc;
};

TEST_F(ExceptionsTest, AllOfARuleMustHoldAndNothingThatAContainerChoosesMakesOneHold)
{
    using Rule = SDK::ExceptionRule;
    for (const auto& [rule, held] : std::vector<std::pair<Rule, std::string>>{
             {{"image", "docker.io/library/nginx:1", "", "", {}, "", {}}, "image"},
             {{"tag", "nginx", "", "", {}, "", {}}, ""},
             {{"registry", "quay.io/nginx:1", "", "", {}, "", {}}, ""},
             {{"folder", "evil/nginx:1", "", "", {}, "", {}}, ""},
             {{"id", "", "sha256:1", "", {}, "", {}}, "id"},
             {{"digest", "", "sha256:2", "", {{"team", "shop"}}, "", {"Shocker"}}, "digest"},
             {{"label", "nginx:1", "", "", {{"team", "web"}}, "", {}}, ""},
             {{"pod", "nginx:1", "", "prod", {}, "", {}}, ""},
             {{"detector", "nginx:1", "", "", {}, "", {"high-risk calls"}}, ""},
             {{"program", "nginx:1", "", "", {}, "/bin/a", {}}, "program refused"},
             {{"another", "nginx:1", "", "", {}, "/bin/b", {}}, ""}}) {
        EXPECT_EQ(Held(rule, Alarm(By(10))), held) << rule.name;
    }
    const Rule image{"x", "nginx:1", "", "", {}, "", {}};
    EXPECT_EQ(Held(image, Alarm(By(11))), "x");
    for (const std::string& alarm :
         {Alarm(""), Alarm(By(10) + "," + By(11)), Alarm(By(12)), Alarm(By(12), "c2"), Alarm(By(13)), Alarm(By(10), ""),
          Alarm(By(10), "c1", "Detection impaired"), Alarm(R"({"process_pid":"10"})"), std::string{"{"}}) {
        EXPECT_EQ(Held(image, alarm), "") << alarm;
    }
}

TEST_F(ExceptionsTest, AnExceptedAlarmIsCountedAndRefusedWhereAnotherProgramWouldBeSilencedWithIt)
{
    std::string text;
    std::vector<std::unique_ptr<AlarmSink>> sinks;
    sinks.push_back(std::make_unique<TestSink>("lines", [&text](std::string_view line, const StopDeadline&) {
        text += line;
        return std::error_code{};
    }));
    DataReportTask task(std::move(sinks), AlarmFormat(AlarmFormat::Form::Text));
    const auto enqueue = [&](int pid) {
        std::shared_ptr<Framework::Message> message = std::make_shared<Framework::DataMessage>("2", Alarm(By(pid)));
        return task.EnqueueMsg(message);
    };
    task.TakeExceptions({{"a", "nginx:1", "", "", {}, "/bin/a", {}}, {"b", "nginx:1", "", "", {}, "", {}}});
    EXPECT_EQ(enqueue(10), -1);
    EXPECT_EQ(enqueue(11), 0);
    EXPECT_EQ(Grown("report.excepted.a"), 1U);
    EXPECT_EQ(Grown("report.excepted.b"), 1U);
    EXPECT_EQ(Grown("alarms.excepted"), 2U);
    EXPECT_EQ(Grown("alarms.lost"), 0U);
    task.UnInit();
    EXPECT_EQ(text, "");
}

TEST(RedactionTest, WhatAnExpressionOrItsGroupMatchesIsHiddenInEachArgumentThatItReaches)
{
    const SDK::Redaction redaction({"--token[= ]\\S+", "(?i)password=(\\S*)", "\xff+", "("});
    EXPECT_THAT(redaction.Apply({"x", "--token", "s3cret", "Password=a b", "--token=t", "\xff\xff!", "", "a"}),
                testing::ElementsAre("x", "[redacted]", "[redacted]", "Password=[redacted] b", "[redacted]",
                                     "[redacted]!", "", "a"));
    EXPECT_EQ(SDK::Redaction::WhyNot("a*"), "");
    EXPECT_NE(SDK::Redaction::WhyNot("("), "");
}

TEST(NameWaitTest, AnAlarmWaitsForTheNameOfItsContainerWhileTheEngineStartsAndNoLonger)
{
    const std::string nameless = R"({"event_name":"x","resource_info":{"container_id":"c1"}})";
    const auto start = NameWait::Clock::now();
    FakeNames names;
    NameWait wait;
    std::string sent;
    const auto release = [&](std::chrono::milliseconds after) {
        wait.Release(&names, start + after, [&](const Alarm& alarm) { sent += alarm.text + '\n'; });
        return std::exchange(sent, {});
    };
    // What goes out now; empty: it waits.
    const auto pass = [&](const std::string& text, const SDK::ContainerNames* known, auto when) {
        Alarm alarm = Alarm::Parse(text).value();
        return wait.Pass(alarm, known, when) ? alarm.text : std::string{};
    };
    for (const char* text : {"{}", R"({"resource_info":null})", R"({"resource_info":{"container_id":1}})"}) {
        EXPECT_EQ(pass(text, &names, start), text);
    }
    EXPECT_EQ(pass(nameless, nullptr, start), nameless);
    EXPECT_EQ(pass(nameless, &names, start), "");
    EXPECT_EQ(pass(nameless, &names, start + 1s), "");
    EXPECT_EQ(release(1999ms), "");
    EXPECT_EQ(release(2000ms), nameless + "\n");
    names.known = "c1";
    const std::string half =
        R"({"container_name":"a","image_name":"","resource_info":{"container_id":"c1","image_id":""}})";
    EXPECT_EQ(pass(half, &names, start), "") << "more is awaited";
    names.areAwaited = false;
    const std::string named = pass(nameless, &names, start);
    const std::string whole = pass(half, &names, start);
    for (const char* part : {R"("image_name":"nginx")", R"("image_id":"sha256:1")", R"("container_id":"c1")"}) {
        EXPECT_NE(named.find(part), std::string::npos) << named;
        EXPECT_NE(whole.find(part), std::string::npos) << whole;
    }
    EXPECT_NE(named.find(R"("container_name":"web")"), std::string::npos) << named;
    EXPECT_NE(whole.find(R"("container_name":"a")"), std::string::npos) << whole;
    EXPECT_EQ(pass(whole, &names, start), whole);
    EXPECT_EQ(release(0ms), named + "\n" + whole + "\n") << "the engine has answered";
    names.known = "";
    EXPECT_EQ(pass(nameless, &names, start), nameless) << "no engine's container";
}

}  // namespace
