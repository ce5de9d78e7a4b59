// SPDX-License-Identifier: Apache-2.0
#include "host/container/NoticeReceivers.h"

#include <algorithm>
#include <utility>

namespace Engine {

void NoticeReceivers::Add(Framework::Task& task)
{
    const std::lock_guard lock{mutex};
    const bool isKnown = std::any_of(receivers.begin(), receivers.end(),
                                     [&task](const Receiver& receiver) { return receiver.task == &task; });
    if (!isKnown) {
        receivers.push_back({&task, task.LostEvents()});
        arrival = true;
    }
}

void NoticeReceivers::Remove(const Framework::Task& task)
{
    std::unique_lock lock{mutex};
    std::erase_if(receivers, [&task](const Receiver& receiver) { return receiver.task == &task; });
    sent.wait(lock, [this, &task] { return std::find(targets.begin(), targets.end(), &task) == targets.end(); });
}

bool NoticeReceivers::IsEmpty() const
{
    const std::lock_guard lock{mutex};
    return receivers.empty();
}

bool NoticeReceivers::TakeArrival()
{
    const std::lock_guard lock{mutex};
    return std::exchange(arrival, false) && !receivers.empty();
}

std::uint64_t NoticeReceivers::TakeLosses()
{
    const std::lock_guard lock{mutex};
    std::uint64_t lost = 0;
    for (Receiver& receiver : receivers) {
        const unsigned long before = std::exchange(receiver.lost, receiver.task->LostEvents());
        lost += receiver.lost - before;
    }
    return lost;
}

void NoticeReceivers::Send(TraceSequencer& sequencer, const std::shared_ptr<Framework::Message>& message)
{
    const Targets chosen{*this};
    for (Framework::Task* target : targets) {
        sequencer.SendInOrder(*target, message);
    }
}

NoticeReceivers::Targets::Targets(NoticeReceivers& owner) : owner(owner)
{
    const std::lock_guard lock{owner.mutex};
    for (const Receiver& receiver : owner.receivers) {
        owner.targets.push_back(receiver.task);
    }
}

NoticeReceivers::Targets::~Targets()
{
    const std::lock_guard lock{owner.mutex};
    owner.targets.clear();
    owner.sent.notify_all();
}

}  // namespace Engine
