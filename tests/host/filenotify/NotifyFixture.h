// SPDX-License-Identifier: Apache-2.0
#pragma once

#include <gmock/gmock.h>

#include <map>
#include <string>
#include <vector>

#include "framework/Task.h"
#include "host/filenotify/AccessBatch.h"
#include "host/sdk/Counters.h"
#include "messages/AbstractMessageReceiver.h"
#include "messages/FileNotifyMessages.h"
#include "tests/support/FakeSystem.h"

// A task that keeps the file notifications it is given.
struct Subscriber : Framework::Task, Engine::AbstractMessageReceiver {
    Subscriber() : Task("detector", "", Framework::TaskCondition::EventLoop, 1) {}

    int FileNotifyMessageAction(Engine::FileNotifyMessage* message) override
    {
        seen.push_back(*message);
        return 0;
    }

    std::vector<Engine::FileNotifyMessage> seen;
};

class NotifyFixture : public testing::Test {
protected:
    // Brings the batch to its end. Returns the number of messages that the subscriber's queue was offered.
    int Reach(Engine::AccessBatch& batch, const Engine::AccessBatch::ReportActive& reportActive,
              Engine::Sending result = Engine::Sending::Accepted)
    {
        int messages = 0;
        batch.OnReached(reportActive, [&](const std::string&, const std::unique_ptr<Framework::Message>& message) {
            ++messages;
            if (result == Engine::Sending::Accepted) {
                message->MessageHandle(static_cast<Framework::Task*>(&subscriber));
            }
            return result;
        });
        return messages;
    }

    // How far the counter has moved since the last look.
    std::uint64_t Counted(const std::string& name)
    {
        const std::uint64_t value = SDK::Counters::Get(name);
        return value - std::exchange(counts[name], value);
    }

    Support::FakeSystem system;
    Subscriber subscriber;
    std::chrono::steady_clock::time_point now{std::chrono::hours{1}};

private:
    std::map<std::string, std::uint64_t> counts = SDK::Counters::Snapshot();
};
