// SPDX-License-Identifier: Apache-2.0
#include "framework/Task.h"

#include <algorithm>
#include <typeinfo>

#include "LogSite.h"
#include "host/framework/EngineImpl.h"
#include "host/framework/ExceptionText.h"
#include "host/framework/TaskImpl.h"
#include "host/sdk/Counters.h"
#include "host/sdk/Realtime.h"

namespace Framework {

namespace {

constexpr int mostEventsAtOnce = 128;
constexpr int mostMessagesAtOnce = 1024;

// Messages taken from the queue in one go. After a cancel no more than these are still handled.
constexpr int bulkSize = 64;

// A task that only handles messages is woken by them; the wait needs no end of its own.
constexpr int idleWaitMs = 60'000;  // messages and the end of the task wake it

}  // namespace

Task::Impl::Impl(const std::string& featureName, TaskCondition::TaskType type, unsigned int queueCapacity)
    : featureName(featureName), type(type), queue(queueCapacity)
{
    waiter.SetPending([this] { return queue.Size() != 0; });
}

Task::Task(const std::string& taskName, const std::string& featureName, TaskCondition::TaskType type,
           unsigned int queueCapacity)
    : Poco::Task(taskName), impl(std::make_unique<Impl>(featureName, type, queueCapacity))
{
}

Task::~Task()
{
    if (Engine* engine = Engine::Impl::Current(); engine != nullptr) {
        engine->impl->registry.Forget(*this);
    }
    if (impl->thread.joinable()) {
        // Too late to be safe, the derived part is gone; better than to leave a thread on freed memory.
        SDK::RootLog::Error("task %s is deleted while its thread runs", name());
        impl->cancelled = true;
        impl->waiter.Wake();
        impl->Join(*this);
    }
    impl->DropQueued();
}

int Task::Init()
{
    return 0;
}

int Task::UnInit()
{
    return 0;
}

int Task::Run()
{
    if (impl->type == TaskCondition::EventLoop) {
        impl->waiter.WaitAndHandleEvent(idleWaitMs, mostEventsAtOnce);
        BulkConsumeMsg(mostMessagesAtOnce);
    }
    return 0;
}

int Task::EnqueueMsg(std::shared_ptr<Message>& message)
{
    if (message == nullptr) {
        return -1;
    }
    if (!impl->accepting.load()) {
        return -1;  // the queue is read no more: the sender knows, nothing waits that could be lost
    }
    if (impl->queue.Enqueue(message) == 0) {
        impl->CountLost(message->EventCount());
        return -1;
    }
    if (!impl->accepting.load()) {
        impl->DropQueued();  // it came in while the task stopped, possibly after the queue was emptied
        return 0;
    }
    impl->waiter.Wake();
    return 0;
}

int Task::InterceptMsg(std::shared_ptr<Message>& /*message*/)
{
    return 0;
}

int Task::HandleMsg(const Message* /*message*/)
{
    return 0;
}

int Task::BulkConsumeMsg(int max)
{
    int handled = 0;
    // A local vector with borrowed memory: a handler may consume messages itself.
    std::vector<Impl::Queued> batch = std::move(impl->spareBatch);
    while (handled < max && impl->queue.Size() != 0 && !impl->IsCutShort()) {
        const auto wanted = std::min(static_cast<std::size_t>(std::min(max - handled, bulkSize)), impl->queue.Size());
        if (impl->queue.DequeueBulk(batch, wanted) == 0) {
            break;  // announced by its producer but not stored yet
        }
        for (Impl::Queued& message : batch) {
            impl->HandleOne(*this, message);
            message.reset();
            ++handled;
        }
    }
    batch.clear();
    impl->spareBatch = std::move(batch);
    return handled;
}

int Task::Impl::HandleOne(Task& task, Queued& message)
{
    NoteProgress();
    const Message& queued = *message;
    if (typeid(queued) != typeid(SyncMessage)) {
        return Deliver(task, message);
    }
    auto& sync = static_cast<SyncMessage&>(*message);
    if (!sync.Begin()) {
        return -1;
    }
    const int result = Deliver(task, sync.Inner());
    sync.Finish(result);
    return result;
}

// Returns the handler's result, or the interceptor's if that kept the message; -1 for an exception.
int Task::Impl::Deliver(Task& task, Queued& message)
{
    try {
        const int kept = task.InterceptMsg(message);
        if (kept != 0 || message == nullptr) {
            return kept;
        }
        return message->MessageHandle(&task);
    } catch (...) {
        if (const auto times = failedMessages.Occurred(SDK::RepeatedReport::Clock::now()); times != 0) {
            SDK::RootLog::Error("task %s: %?u messages failed, going on without them: %s", task.name(), times,
                                CurrentExceptionText());
        }
        return -1;
    }
}

void Task::Impl::NoteProgress()
{
    SDK::Realtime::Watch();
    lastProgress.store(std::chrono::steady_clock::now(), std::memory_order_relaxed);
}

void Task::Impl::CountLost(unsigned long events)
{
    static SDK::Counters::Counter& lostEverywhere = SDK::Counters::Get(SDK::CounterName::queueLost);
    lostEvents += events;
    lostEverywhere += events;
}

void Task::Impl::DropQueued()
{
    Queued message;
    while (queue.Dequeue(message) != 0) {
        CountLost(message->EventCount());
        message.reset();
    }
}

bool Task::IsAccepting() const
{
    return impl->accepting.load();
}

bool Task::IsRestarting() const
{
    return impl->restarting.load();
}

EventWaiter& Task::Waiter()
{
    return impl->waiter;
}

const std::string& Task::FeatureName() const
{
    return impl->featureName;
}

TaskCondition::TaskType Task::Type() const
{
    return impl->type;
}

unsigned long Task::LostEvents() const
{
    return impl->lostEvents;
}

}  // namespace Framework
