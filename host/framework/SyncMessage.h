// SPDX-License-Identifier: Apache-2.0
// A message whose sender waits for the result of its handling. The sender holds the future: it may give up first, and a
// message that is dropped unhandled breaks its promise, which ends the wait.
#pragma once

#include <atomic>
#include <future>
#include <memory>
#include <utility>

#include "framework/Message.h"

namespace Framework {

class SyncMessage final : public Message {
public:
    // Set by the receiver when it begins with the message and by a sender that gives up, to be seen by the other: a
    // sender that was told of a failure must not find the thing done later.
    using Claim = std::shared_ptr<std::atomic<bool>>;

    SyncMessage(std::shared_ptr<Message> inner, std::promise<int> result, Claim claim)
        : inner(std::move(inner)), result(std::move(result)), claim(std::move(claim))
    {
    }

    // The receiver is about to handle the message. False: the sender has given up, leave it.
    bool Begin() { return !claim->exchange(true); }

    // The result of the receiver, once Begin was true. Wakes the sender.
    void Finish(int value) { result.set_value(value); }

    std::shared_ptr<Message>& Inner() { return inner; }
    unsigned long EventCount() const override { return inner->EventCount(); }

private:
    std::shared_ptr<Message> inner;
    std::promise<int> result;
    Claim claim;
};

}  // namespace Framework
