// SPDX-License-Identifier: Apache-2.0
// A task that keeps the file notifications it is given.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "framework/Task.h"
#include "messages/AbstractMessageReceiver.h"
#include "messages/FileNotifyMessages.h"

struct Subscriber : Framework::Task, Engine::AbstractMessageReceiver {
    Subscriber() : Task("detector", "", Framework::TaskCondition::EventLoop, 1) {}

    int FileNotifyMessageAction(Engine::FileNotifyMessage* message) override
    {
        seen.push_back(*message);
        return 0;
    }
    // A message as the framework hands it over.
    void Handle(Framework::Message& message) { message.MessageHandle(static_cast<Framework::Task*>(this)); }

    std::vector<Engine::FileNotifyMessage> Take() { return std::exchange(seen, {}); }

private:
    std::vector<Engine::FileNotifyMessage> seen;
};
