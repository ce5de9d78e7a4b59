// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/Notifier.h"

#include <gmock/gmock.h>

#include "tests/host/filenotify/EventBuffer.h"
#include "tests/host/filenotify/Subscriber.h"
#include "tests/support/FakeSystem.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;

// Handles are the paths themselves.
struct FakeLookup : Engine::DirectoryLookup {
    Answer PathsOf(const Engine::DirectoryHandle& directory,
                   const std::function<bool(const std::string&)>& take) override
    {
        ++asked;
        if (answer == Answer::Done) {
            take({reinterpret_cast<const char*>(directory.bytes.data()), directory.bytes.size()});
        }
        return answer;
    }
    void DirectoryChanged(const Engine::DirectoryHandle&) override {}

    Answer answer = Answer::Done;
    int asked = 0;
};

class NotifierTest : public testing::Test {
protected:
    NotifierTest()
    {
        system.Put(hostShell, {{1, "sh"}, "", "", {}});
        system.PutInContainer(shell, "0123456789ab");
        const auto entry = Engine::ParseWatchEntry("/watched", {FAN_MODIFY});
        watches.Add(&task, entry.path, entry, {}).subscriberName = task.name();
    }

    void Handle(const Support::EventBuffer& buffer) { notifier.Handle(buffer.Bytes(), now); }
    void Write(int pid, const std::string& name)
    {
        Handle(Support::EventBuffer{}.Event(FAN_MODIFY, pid, "/watched", name));
    }
    // Brings the accesses to their end, as if the trace had got as far. Returns what the subscriber got.
    std::vector<std::string> Sent()
    {
        messages = 0;
        for (const auto& batch : std::exchange(batches, {})) {
            batch->OnObserved([this](int pid) { reported.push_back(pid); });
            batch->OnFlushed([&](const std::string& name, const std::unique_ptr<Framework::Message>& message) {
                EXPECT_EQ(name, task.name());
                ++messages;
                if (result == Engine::Sending::Accepted) {
                    task.Handle(*message);
                }
                return result;
            });
        }
        std::vector<std::string> sent;
        for (const Engine::FileNotifyMessage& message : task.Take()) {
            sent.push_back(std::to_string(message.GetEventProcessId()) + ":" + message.GetEventFilePath());
        }
        return sent;
    }
    // How far the counter has moved since the last look.
    std::uint64_t Counted(const std::string& name)
    {
        const std::uint64_t value = SDK::Counters::Get(name);
        return value - std::exchange(seen[name], value);
    }

    static constexpr int shell = 50;
    static constexpr int hostShell = 51;
    static constexpr int stranger = 52;
    static constexpr int agent = 53;

    Support::FakeSystem system;
    Subscriber task;
    Engine::WatchTable watches;
    FakeLookup lookup;
    Engine::Sending result = Engine::Sending::Accepted;
    std::vector<std::unique_ptr<Engine::AccessBatch>> batches;
    int messages = 0;           // that the last batches became
    std::vector<int> reported;  // processes, to the observer of the trace
    std::map<std::string, std::uint64_t> seen = SDK::Counters::Snapshot();
    Engine::Notifier::TimePoint now{1h};
    Engine::Notifier notifier{watches, lookup, agent, [this](std::unique_ptr<Engine::AccessBatch> batch) {
                                  batches.push_back(std::move(batch));
                              }};
};

TEST_F(NotifierTest, SendsAContainersAccessesBehindTheTraceAndLooksNothingUpForOthers)
{
    Support::EventBuffer buffer;
    for (const int pid : {hostShell, shell, agent, hostShell, shell}) {
        buffer.Event(FAN_MODIFY, pid, "/watched", "f");
    }
    Handle(buffer);
    EXPECT_EQ(lookup.asked, 2);
    ASSERT_EQ(batches.size(), 1U);
    EXPECT_EQ(batches.front()->When(), now.time_since_epoch()) << "when the kernel's answer was read";
    EXPECT_EQ(batches.front()->EventCount(), 2U);
    EXPECT_THAT(Sent(), ElementsAre("50:/watched/f", "50:/watched/f"));
    EXPECT_THAT(reported, ElementsAre(shell, shell));
    EXPECT_EQ(messages, 1) << "many accesses must not fill a queue that counts messages";
    EXPECT_EQ(Counted("notify.read"), 5U);
    EXPECT_EQ(Counted("notify.not_container"), 2U);
    EXPECT_EQ(Counted("notify.delivered"), 2U);
}

TEST_F(NotifierTest, AProcessIsJudgedByWhatTheTraceHasTold)
{
    Write(stranger, "still unknown");
    Write(stranger + 100, "of the host");
    Write(stranger + 200, "of a container");
    system.Put(stranger + 100, {{1, "sh"}, "", "", {}});
    system.PutInContainer(stranger + 200, "0123456789ab");
    EXPECT_THAT(Sent(), ElementsAre("52:/watched/still unknown", "252:/watched/of a container"));
    EXPECT_EQ(Counted("notify.not_container"), 1U);
}

TEST_F(NotifierTest, CountsEveryKindOfLoss)
{
    Handle(Support::EventBuffer{}.Event(FAN_Q_OVERFLOW, 0));
    notifier.ReadFailed(std::make_error_code(std::errc::too_many_files_open), now);
    Support::EventBuffer cut;
    cut.Event(FAN_MODIFY, shell, "/watched", "f").bytes.pop_back();
    Handle(cut);
    lookup.answer = Engine::DirectoryLookup::Answer::Failing;
    Write(shell, "no descriptor");
    EXPECT_EQ(Counted("notify.overflow"), 4U);

    lookup.answer = Engine::DirectoryLookup::Answer::Gone;
    Write(shell, "in a deleted directory");
    EXPECT_EQ(Counted("notify.unresolved"), 1U);

    lookup.answer = Engine::DirectoryLookup::Answer::Done;
    Write(shell, "refused");
    result = Engine::Sending::Refused;
    Sent();
    EXPECT_EQ(Counted("notify.lost_queue"), 1U);
    Write(shell, "the trace's queue is full");
    batches.clear();
    EXPECT_EQ(Counted("notify.lost_queue"), 1U);
    Write(shell, "the subscriber has stopped");
    result = Engine::Sending::Gone;
    Sent();
    EXPECT_EQ(Counted("notify.lost_queue"), 0U);
    EXPECT_EQ(Counted("notify.delivered"), 0U);
}

}  // namespace
