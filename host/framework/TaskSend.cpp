// SPDX-License-Identifier: Apache-2.0
// How a task reaches others: by name, by pointer, waiting or not.
#include <algorithm>
#include <chrono>
#include <future>

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
    const auto claim = std::make_shared<std::atomic<bool>>(false);
    std::promise<int> promise;
    std::future<int> answer = promise.get_future();
    std::shared_ptr<Message> sync = std::make_shared<SyncMessage>(std::move(owned), std::move(promise), claim);
    if (engine->impl->registry.Find(taskName) == this && impl->OnTaskThread()) {
        impl->HandleOne(*this, sync);
    } else if (engine->impl->registry.Enqueue(taskName, sync) != 0) {
        return -1;
    }
    sync.reset();  // from here on the message ends with its handling, or with the queue of the receiver
    const std::optional<int> result = impl->WaitFor(answer, Clamped(timeoutMs));
    if (!result) {
        claim->store(true);
        return -1;
    }
    return mode == wantsResult ? *result : 0;
}

int Task::SendAgileMsg(Task* target, Message* message)
{
    std::shared_ptr<Message> owned(message);
    return target != nullptr && target->EnqueueMsg(owned) == 0 ? 1 : 0;
}

std::optional<int> Task::Impl::WaitFor(std::future<int>& answer, milliseconds timeout) const
{
    using Clock = std::chrono::steady_clock;
    constexpr Clock::duration look = milliseconds{10};  // how often to look for a cancel
    const bool endsByCancel = OnTaskThread() && interruptible;
    const auto deadline = Clock::now() + timeout;
    Clock::duration left = timeout;
    while (answer.wait_for(std::min(left, look)) != std::future_status::ready) {
        left = deadline - Clock::now();
        if (left <= Clock::duration::zero() || (endsByCancel && cancelled)) {
            return std::nullopt;
        }
    }
    try {
        return answer.get();
    } catch (const std::future_error&) {
        return std::nullopt;  // dropped unhandled
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
