// SPDX-License-Identifier: Apache-2.0
#include "host/framework/TaskRegistry.h"

#include <mutex>
#include <vector>

#include "framework/Task.h"

namespace Framework {

using ReadLock = std::shared_lock<std::shared_mutex>;
using WriteLock = std::unique_lock<std::shared_mutex>;

bool TaskRegistry::Add(const EntryPointer& entry)
{
    const WriteLock lock(mutex);
    if (!byName.try_emplace(entry->task->name(), entry).second) {
        return false;
    }
    entries.push_back(entry);
    return true;
}

Task* TaskRegistry::Find(const std::string& name) const
{
    const ReadLock lock(mutex);
    const auto found = byName.find(name);
    return found == byName.end() ? nullptr : found->second->task;
}

TaskRegistry::EntryPointer TaskRegistry::FindEntry(const std::string& name) const
{
    const ReadLock lock(mutex);
    const auto found = byName.find(name);
    return found == byName.end() ? nullptr : found->second;
}

std::vector<TaskRegistry::EntryPointer> TaskRegistry::All() const
{
    const ReadLock lock(mutex);
    return entries;
}

int TaskRegistry::Enqueue(const std::string& name, std::shared_ptr<Message>& message) const
{
    const ReadLock lock(mutex);
    const auto found = byName.find(name);
    return found == byName.end() ? -1 : found->second->task->EnqueueMsg(message);
}

void TaskRegistry::Hide(const EntryPointer& entry)
{
    const WriteLock lock(mutex);
    entry->hidden = true;
    Unname(*entry);
}

void TaskRegistry::Remove(const EntryPointer& entry)
{
    const WriteLock lock(mutex);
    Unname(*entry);
    std::erase(entries, entry);
}

void TaskRegistry::Forget(const Task& task)
{
    const WriteLock lock(mutex);
    std::erase_if(byName, [&task](const auto& named) { return named.second->task == &task; });
    std::erase_if(entries, [&task](const EntryPointer& entry) { return entry->task == &task; });
}

// Only if the name still belongs to this entry: that of a hidden task may be in use again.
void TaskRegistry::Unname(const TaskEntry& entry)
{
    std::erase_if(byName, [&entry](const auto& named) { return named.second.get() == &entry; });
}

}  // namespace Framework
