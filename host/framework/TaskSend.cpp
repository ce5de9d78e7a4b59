// SPDX-License-Identifier: Apache-2.0
// How a task reaches others: by name, by pointer, waiting or not.
#include <algorithm>
#include <chrono>

#include "host/framework/EngineImpl.h"
#include "host/framework/TaskImpl.h"

namespace Framework {

namespace {

using std::chrono::milliseconds;

constexpr int wantsResult = 2;  // `mode` of SyncSendDirectMsg

milliseconds Clamped(long timeoutMs)
{
    constexpr long longestMs = 24L * 60 * 60 * 1000;  // keeps the sum with the clock within its range
    return milliseconds{std::clamp(timeoutMs, 0L, longestMs)};
}

}  // namespace

int Task::SendDirectMsg(const std::string& taskName, Message* message)
{
    std::shared_ptr<Message> owned(message);
    const Engine* engine = Engine::Impl::Current();
    return engine == nullptr ? -1 : engine->impl->registry.Enqueue(taskName, owned);
}

int Task::SyncSendDirectMsg(const std::string& taskName, Message* message, std::string& reply, long timeoutMs, int mode)
{
    std::shared_ptr<Message> owned(message);
    reply.clear();
    const Engine* engine = Engine::Impl::Current();
    if (owned == nullptr || engine == nullptr) {
        return -1;
    }
    const auto meeting = std::make_shared<Rendezvous>();
    std::shared_ptr<Message> sync = std::make_shared<SyncMessage>(std::move(owned), meeting);
    int result = -1;
    if (engine->impl->registry.Find(taskName) == this && impl->OnTaskThread()) {
        result = impl->HandleOne(*this, sync);
    } else if (engine->impl->registry.Enqueue(taskName, sync) == 0) {
        sync.reset();  // from here on the message ends with its handling, or with the receiver's queue
        result = impl->WaitFor(meeting, timeoutMs);
    }
    return mode == wantsResult || !meeting->WasHandled() ? result : 0;
}

int Task::SendAgileMsg(Task* target, Message* message)
{
    std::shared_ptr<Message> owned(message);
    return target != nullptr && target->EnqueueMsg(owned) == 0 ? 1 : 0;
}

int Task::Impl::WaitFor(const std::shared_ptr<Rendezvous>& meeting, long timeoutMs)
{
    if (!OnTaskThread() || !interruptible) {
        return meeting->Wait(Clamped(timeoutMs));
    }
    {
        const std::lock_guard<std::mutex> lock(waitMutex);
        waitingFor = meeting;
    }
    if (cancelled) {  // read after waitingFor is set: a cancel that is missed here finds the meeting
        meeting->GiveUp();
    }
    const int result = meeting->Wait(Clamped(timeoutMs));
    const std::lock_guard<std::mutex> lock(waitMutex);
    waitingFor.reset();
    return result;
}

void Task::Impl::AbandonWait()
{
    const std::lock_guard<std::mutex> lock(waitMutex);
    if (waitingFor != nullptr) {
        waitingFor->GiveUp();
    }
}

int Task::AddConsumer(unsigned long type, const char* name, Task* consumer)
{
    if (name == nullptr || consumer == nullptr) {
        return -1;
    }
    const std::lock_guard<std::mutex> lock(impl->consumerMutex);
    return impl->consumers.try_emplace({type, name}, consumer).second ? 0 : -1;
}

int Task::DelConsumer(unsigned long type, const char* name, const Task* consumer)
{
    if (name == nullptr) {
        return -1;
    }
    const std::lock_guard<std::mutex> lock(impl->consumerMutex);
    const auto found = impl->consumers.find({type, name});
    if (found == impl->consumers.end() || found->second != consumer) {
        return -1;
    }
    impl->consumers.erase(found);
    return 0;
}

std::vector<Task*> Task::Consumers(unsigned long type) const
{
    const std::lock_guard<std::mutex> lock(impl->consumerMutex);
    std::vector<Task*> found;
    for (auto next = impl->consumers.lower_bound({type, ""});
         next != impl->consumers.end() && next->first.first == type; ++next) {
        found.push_back(next->second);
    }
    return found;
}

}  // namespace Framework
