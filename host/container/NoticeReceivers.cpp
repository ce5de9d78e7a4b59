// SPDX-License-Identifier: Apache-2.0
#include "host/container/NoticeReceivers.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace Engine {

// Tells its end apart from its handling, wherever on its way it ends.
class NoticeReceivers::StopNotice final : public ContainerProcMessage {
public:
    StopNotice(std::shared_ptr<ProcInfo> info, std::shared_ptr<UnheardList> unheard, int receivers)
        : ContainerProcMessage(false, std::move(info)), unheard(std::move(unheard)), missing(receivers)
    {
    }
    StopNotice(const StopNotice&) = delete;
    StopNotice& operator=(const StopNotice&) = delete;
    ~StopNotice() override
    {
        if (missing != 0) {
            const std::lock_guard lock{unheard->mutex};
            unheard->tids.push_back(this->info->pid);
        }
    }

    int MessageHandle(void* target) override
    {
        const int result = ContainerProcMessage::MessageHandle(target);
        --missing;
        return result;
    }

private:
    std::shared_ptr<UnheardList> unheard;
    std::atomic<int> missing;  // receivers that have not handled it
};

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

void NoticeReceivers::Send(TraceSequencer& sequencer, const std::shared_ptr<Framework::Message>& message)
{
    const Targets chosen{*this};
    for (Framework::Task* target : targets) {
        sequencer.SendInOrder(*target, message);
    }
}

void NoticeReceivers::SendStop(TraceSequencer& sequencer, std::shared_ptr<ContainerProcMessage::ProcInfo> info)
{
    const Targets chosen{*this};
    // With nobody there it is not heard either: the one who has just gone may come back, and has the records still.
    const int receivers = std::max(static_cast<int>(targets.size()), 1);
    const auto notice = std::make_shared<StopNotice>(std::move(info), unheard, receivers);
    for (Framework::Task* target : targets) {
        sequencer.SendInOrder(*target, notice);
    }
}

std::vector<int> NoticeReceivers::TakeUnheard()
{
    const std::lock_guard lock{unheard->mutex};
    return std::exchange(unheard->tids, {});
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
