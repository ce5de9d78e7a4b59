// SPDX-License-Identifier: Apache-2.0
#include "host/container/NoticeReceivers.h"

#include <algorithm>
#include <utility>

namespace Engine {

void NoticeReceivers::Add(Framework::Task& task)
{
    const std::lock_guard lock{mutex};
    const auto known = std::find_if(receivers.begin(), receivers.end(),
                                    [&task](const Receiver& receiver) { return receiver.task == &task; });
    if (known == receivers.end()) {
        receivers.push_back({&task, task.LostEvents()});
        arrival = true;
    } else if (known->isLeaving) {
        *known = {&task, task.LostEvents()};
        arrival = true;
    }
}

void NoticeReceivers::Remove(const Framework::Task& task)
{
    std::unique_lock lock{mutex};
    if (task.IsRestarting()) {
        for (Receiver& receiver : receivers) {
            receiver.isLeaving = receiver.isLeaving || receiver.task == &task;
        }
        return;
    }
    std::erase_if(receivers, [&task](const Receiver& receiver) { return receiver.task == &task; });
    sent.wait(lock, [this, &task] { return std::find(targets.begin(), targets.end(), &task) == targets.end(); });
}

int NoticeReceivers::Count() const
{
    const std::lock_guard lock{mutex};
    return static_cast<int>(receivers.size());
}

bool NoticeReceivers::TakeArrival()
{
    const std::lock_guard lock{mutex};
    std::erase_if(receivers,
                  [](const Receiver& receiver) { return receiver.isLeaving && !receiver.task->IsRestarting(); });
    return std::exchange(arrival, false) && !receivers.empty();
}

bool NoticeReceivers::TakeLoss()
{
    const std::lock_guard lock{mutex};
    bool lost = false;
    for (Receiver& receiver : receivers) {
        const unsigned long before = std::exchange(receiver.lost, receiver.task->LostEvents());
        lost = lost || receiver.lost != before;
    }
    return lost;
}

bool NoticeReceivers::AllGetEvent(const TraceSequencer& sequencer) const
{
    const std::lock_guard lock{mutex};
    return std::all_of(receivers.begin(), receivers.end(),
                       [&sequencer](const Receiver& receiver) { return sequencer.GetsEvent(*receiver.task); });
}

void NoticeReceivers::Send(TraceSequencer& sequencer, const std::shared_ptr<Framework::Message>& message)
{
    {
        const std::lock_guard lock{mutex};
        for (const Receiver& receiver : receivers) {
            targets.push_back(receiver.task);
        }
    }
    for (Framework::Task* target : targets) {
        sequencer.SendInOrder(*target, message);
    }
    const std::lock_guard lock{mutex};
    targets.clear();
    sent.notify_all();
}

}  // namespace Engine
