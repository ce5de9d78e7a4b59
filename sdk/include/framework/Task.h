// SPDX-License-Identifier: Apache-2.0
// A task: one named thread of the agent with a message queue of its own.
//
// The thread runs Init, then Run until the task is cancelled, then UnInit, and every message is handled on it.
// A Run that returns non-zero or throws is not repeated at once but after a short pause of 100 ms; nothing else is read
// into the result.
#pragma once

#include <Poco/Task.h>

#include <memory>
#include <string>
#include <vector>

#include "framework/EventWaiter.h"
#include "framework/Message.h"
#include "framework/Policy.h"

namespace Framework {

class Engine;

struct TaskCondition {
    enum TaskType : int {
        // Run every TaskPolicy::periodSeconds, first after firstDelaySeconds; never while there is no task policy or
        // its
        // period is 0. Messages are handled between the runs, which therefore need not wait or consume.
        Periodic = 0,
        EventLoop = 4,  // Run again at once; Run itself waits on the event waiter
    };
};

// A policy as a task sees it, with the two versions by which the task knows what it has applied.
// Thread: written by the framework while the task does not run, used by the task's thread.
class PolicySlot {
public:
    Policy* Get() const { return policy; }

    // Marks the current version as applied. Returns whether it had not been applied before.
    bool MarkApplied()
    {
        const bool changed = appliedVersion != currentVersion;
        appliedVersion = currentVersion;
        return changed;
    }

    // Framework: puts a new version in place. Not owned; may be null.
    void Set(Policy* next)
    {
        policy = next;
        ++currentVersion;
    }

private:
    Policy* policy = nullptr;
    unsigned int currentVersion = 0;
    unsigned int appliedVersion = 0;
};

class Task : public Poco::Task {
public:
    // `taskName`: unique in the agent. `featureName`: the feature whose policy the task needs before it can start;
    // empty for a task that needs none and starts at once. `queueCapacity`: messages that may wait; more are refused.
    Task(const std::string& taskName, const std::string& featureName, TaskCondition::TaskType type,
         unsigned int queueCapacity);
    ~Task() override;

    // Asks the thread to end. A wait of its own for the waiter or for a synchronous send ends at once. Any thread.
    void cancel() override;

    // The thread's body: Init, Run until cancelled, UnInit. Exceptions end here, logged.
    void runTask() override;

    // 0 means success. A failed Init leaves the task without Run; UnInit is called all the same. Unless the task is
    // restarted, it handles what is queued before UnInit, for at most 200 ms, and then takes no more messages; UnInit
    // may go on handling; what is left in the queue after it is dropped and counted as lost. The default Run of an
    // event loop waits and handles messages.
    virtual int Init();
    virtual int UnInit();
    virtual int Run();

    // Queues a message for this task and wakes its thread. Any thread. 0: queued; -1: the queue is full, which is
    // counted as a loss, or the task stops, has stopped or waits for its policy, which is not. `message` itself stays
    // as it was, so it can be queued for several tasks. Overrides do not look tasks up or send: a send by name holds
    // the lock on the names.
    virtual int EnqueueMsg(std::shared_ptr<Message>& message);

    // Sees each message before its MessageHandle; non-zero keeps the message from being handled. Returns 0.
    virtual int InterceptMsg(std::shared_ptr<Message>& message);

    // Takes the messages that have no receiver interface of their own (CmdMessage, DataMessage). Returns 0.
    virtual int HandleMsg(const Message* message);

    // Handles at most `max` queued messages on the calling thread, which must be that of the task. Returns how many.
    // What a handler throws is logged and ends that message only. Stops early when the task is cancelled.
    int BulkConsumeMsg(int max);

    // The four send operations take ownership of `message` in every case.
    // Queues it for the named task. 0: queued; -1: no such task, or its queue is full.
    int SendDirectMsg(const std::string& taskName, Message* message);

    // The same, and waits at most `timeoutMs` milliseconds until the receiver has handled it. `mode` 2 asks for the
    // receiver's result, any other value only for delivery. Returns 0 when the receiver returned 0, its non-zero result
    // if it had one, -1 when there is no such task, its queue is full or the time is up. `reply` is emptied: no message
    // of this agent answers with a text. A task that sends to itself gets the message handled at once. A message whose
    // sender has been told -1 before the receiver came to it is not handled any more. -1 also when the receiver's
    // handler threw or the sending task was cancelled meanwhile.
    int SyncSendDirectMsg(const std::string& taskName, Message* message, std::string& reply, long timeoutMs, int mode);

    // Queues it for `target` without looking a name up. Mind the sense: non-zero when accepted, 0 when refused.
    int SendAgileMsg(Task* target, Message* message);

    // Registers `consumer` under a name for this task's messages of one type. 0: registered; -1: that pair of type and
    // name is taken. DelConsumer undoes it; -1 when there is no such registration. Any thread.
    int AddConsumer(unsigned long type, const char* name, Task* consumer);
    int DelConsumer(unsigned long type, const char* name, const Task* consumer);

    // Those registered for messages of that type, by name. Not owned. Any thread.
    std::vector<Task*> Consumers(unsigned long type) const;

    EventWaiter& Waiter();
    const std::string& FeatureName() const;
    TaskCondition::TaskType Type() const;

    // Whether the task takes messages: from before its Init until it stops, and on through a restart.
    bool IsAccepting() const;

    // Whether a new policy restarts the task: from before the end of its thread until the next Init is over. What is
    // sent to it meanwhile waits in its queue. A task that keeps subscriptions for it keeps those that its UnInit takes
    // back until then, since Init is about to ask for most of them again: nothing is missed in between. Any thread.
    bool IsRestarting() const;

    // Events that were refused by a full queue, or still in it when the task had stopped, since construction.
    unsigned long LostEvents() const;

protected:
    PolicySlot featurePolicy;
    PolicySlot taskPolicy;

private:
    friend class Engine;
    struct Impl;
    std::unique_ptr<Impl> impl;
};

}  // namespace Framework
