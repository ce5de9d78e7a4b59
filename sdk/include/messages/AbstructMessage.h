// SPDX-License-Identifier: Apache-2.0
// Typed delivery on top of Framework::Message: a message of type T finds the receiving task's interface for T.
//
//     struct Ping : Engine::AbstractMessage<Ping> { int number = 0; };
//     class PingTask : public Framework::Task, public Engine::AbstractMessage<Ping>::Receiver { ... };
//     task.SendDirectMsg("ping_task", new Ping);    // calls Receive on the thread of "ping_task"
#pragma once

#include "framework/Message.h"
#include "framework/Task.h"

namespace Engine {

// Base of a message type T (class T : public AbstructMessage<T>). The spelling is part of the contract; AbstractMessage
// is the same class.
template <class T>
class AbstructMessage : public Framework::Message {
public:
    // What a task derives from to take messages of type T.
    class Receiver {
    public:
        // Called on the receiving task's thread. The message is the framework's and ends after the call: copy what is
        // needed longer. The result goes to a sender that waits for it (Task::SyncSendDirectMsg), 0 meaning success.
        virtual int Receive(const T& message) = 0;
        virtual ~Receiver() = default;
    };

    // Returns what Receive returned; -1 when there is no target or it takes no such messages.
    int MessageHandle(void* target) override
    {
        if (target == nullptr) {
            return -1;
        }
        auto* receiver = dynamic_cast<Receiver*>(static_cast<Framework::Task*>(target));
        if (receiver == nullptr) {
            return -1;
        }
        return receiver->Receive(static_cast<const T&>(*this));
    }
};

template <class T>
using AbstractMessage = AbstructMessage<T>;

}  // namespace Engine
