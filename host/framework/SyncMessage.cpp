// SPDX-License-Identifier: Apache-2.0
#include "host/framework/SyncMessage.h"

#include <utility>

namespace Framework {

int Rendezvous::Wait(std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, timeout, [this] { return state == State::Over; });
    state = State::Over;
    return result;
}

void Rendezvous::GiveUp()
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (state != State::Over) {
        state = State::Over;
        changed.notify_all();
    }
}

bool Rendezvous::Begin()
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (state != State::Queued) {
        return false;
    }
    state = State::Begun;
    return true;
}

void Rendezvous::Finish(int value)
{
    const std::lock_guard<std::mutex> lock(mutex);
    if (state == State::Begun) {
        state = State::Over;
        handled = true;
        result = value;
        changed.notify_all();
    }
}

bool Rendezvous::WasHandled() const
{
    const std::lock_guard<std::mutex> lock(mutex);
    return handled;
}

SyncMessage::SyncMessage(std::shared_ptr<Message> inner, std::shared_ptr<Rendezvous> rendezvous)
    : inner(std::move(inner)), rendezvous(std::move(rendezvous))
{
}

SyncMessage::~SyncMessage()
{
    rendezvous->GiveUp();
}

}  // namespace Framework
