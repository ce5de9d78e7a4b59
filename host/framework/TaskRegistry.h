// SPDX-License-Identifier: Apache-2.0
// The agent's tasks by name.
// Ownership: none of the tasks.   Thread: any; one lock, never held while a task's Init, Run or UnInit is called or
// waited for. A send by name holds it shared while it queues the message, so that the receiver cannot go meanwhile.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <shared_mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "framework/Message.h"
#include "host/framework/RunState.h"

namespace Framework {

class Module;
class Task;

// One registered task. The pointers never change; `startNumber` belongs to the thread that starts and stops tasks.
struct TaskEntry {
    Task* task = nullptr;
    const Module* module = nullptr;   // that registered it
    bool owned = false;               // the framework releases it
    std::uint64_t startNumber = 0;    // grows with each start; 0: never started
    std::atomic<bool> hidden{false};  // unregistered on its own thread, which has not been joined yet; see Hide
    std::shared_ptr<RunState> state;
};

class TaskRegistry {
public:
    using EntryPointer = std::shared_ptr<TaskEntry>;

    // False when the name is taken.
    bool Add(const EntryPointer& entry);

    // Null when there is no such task. Hidden ones are not found.
    Task* Find(const std::string& name) const;
    EntryPointer FindEntry(const std::string& name) const;

    // All of them, hidden ones included, in the order in which they were added.
    std::vector<EntryPointer> All() const;

    // What the task's EnqueueMsg returns, -1 when there is no such task.
    int Enqueue(const std::string& name, std::shared_ptr<Message>& message) const;

    // Frees the name of the task but keeps the entry for the thread that will join it.
    void Hide(const EntryPointer& entry);
    void Remove(const EntryPointer& entry);
    void Forget(const Task& task);  // the same for a task that is being deleted; no entry, no harm

private:
    void Unname(const TaskEntry& entry);

    mutable std::shared_mutex mutex;
    std::vector<EntryPointer> entries;
    std::unordered_map<std::string, EntryPointer> byName;
};

}  // namespace Framework
