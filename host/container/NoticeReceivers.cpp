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
    const std::lock_guard lock{mutex};
    std::erase_if(receivers, [&task](const Receiver& receiver) { return receiver.task == &task; });
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
    const std::lock_guard lock{mutex};
    for (const Receiver& receiver : receivers) {
        sequencer.SendInOrder(*receiver.task, message);
    }
}

}  // namespace Engine
