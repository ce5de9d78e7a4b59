// SPDX-License-Identifier: Apache-2.0
// A message whose sender waits until it has been handled. Sender and message share a Rendezvous, so that either may go
// first: a sender that gives up leaves nothing behind that the handling could touch, and a message that is dropped
// unhandled ends the wait.
#pragma once

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "framework/Message.h"

namespace Framework {

// Thread: any.
class Rendezvous {
public:
    static constexpr int noResult = -1;

    // Waits until Finish or GiveUp, at most `timeout`. Returns the result, noResult if there is none. After that Begin
    // refuses: a sender that was told of a failure must not find the thing done later.
    int Wait(std::chrono::milliseconds timeout);

    // Ends the wait without a result; one that comes later is dropped.
    void GiveUp();

    // The receiver is about to handle the message. False: nobody waits any more, leave it.
    bool Begin();

    // The receiver's result, once Begin was true. Wakes the sender.
    void Finish(int result);

    // Whether the message was handled before the wait ended.
    bool WasHandled() const;

private:
    enum class State { Queued, Begun, Over };

    mutable std::mutex mutex;
    std::condition_variable changed;
    State state = State::Queued;
    bool handled = false;
    int result = noResult;
};

class SyncMessage final : public Message {
public:
    SyncMessage(std::shared_ptr<Message> inner, std::shared_ptr<Rendezvous> rendezvous);
    SyncMessage(const SyncMessage&) = delete;
    SyncMessage& operator=(const SyncMessage&) = delete;
    ~SyncMessage() override;  // unhandled: the sender gets no result

    std::shared_ptr<Message>& Inner() { return inner; }
    Rendezvous& Meeting() { return *rendezvous; }
    unsigned long EventCount() const override { return inner->EventCount(); }

private:
    std::shared_ptr<Message> inner;
    std::shared_ptr<Rendezvous> rendezvous;
};

}  // namespace Framework
