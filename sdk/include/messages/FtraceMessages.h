// SPDX-License-Identifier: Apache-2.0
// Trace events, as the task "ftrace_task" of libftrace_module.so delivers them.
//
// Kernel: the events, and the fields of each, are those of the files events/<system>/<event>/format in tracefs
// (Documentation/trace/events.rst). "common_pid" is the id of the thread that caused the event.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "messages/AbstructMessage.h"

namespace Engine {

class EventKind;

// One trace event: a view of its raw record and of its kind's format. Copyable, cheap, valid only while it is
// delivered. Nothing here allocates except get_string for a text of more than 15 bytes. Every text comes from the
// process itself and is hostile input.
class FtraceMessage : public AbstructMessage<FtraceMessage> {
public:
    // `record`: the record's bytes, common fields included, in the machine's byte order. `kind` and `record` are not
    // owned.
    FtraceMessage(const EventKind& kind, const std::byte* record, std::size_t size, std::chrono::nanoseconds when)
        : kind(&kind), record(record), size(size), when(when)
    {
    }

    // System, colon, event: "sched:sched_process_fork". Built once for each kind of event.
    const std::string& name() const;

    // An integer field, sign or zero extended from its size. 0 for a field that the event does not have, that is no
    // integer of 1, 2, 4 or 8 bytes, or that lies outside the record.
    std::int64_t get_number(std::string_view field) const;

    // A text field up to its first zero byte, whether the format gives it as a fixed array or as a __data_loc. Empty
    // for a field that the event does not have. The reference is good until the fourth call after this on the same
    // thread.
    const std::string& get_string(std::string_view field) const;

    // When the event was recorded, on the system's monotonic clock (clock_gettime(2), CLOCK_MONOTONIC).
    std::chrono::nanoseconds When() const { return when; }

    const EventKind& Kind() const { return *kind; }

private:
    const EventKind* kind;
    const std::byte* record;
    std::size_t size;
    std::chrono::nanoseconds when;
};

// Subscribes a task to a trace event, or ends that. Subscriptions are counted per (task, event): the task gets the
// event once however often it subscribed, until it has ended as many subscriptions. The receiver's result is 0 when it
// is done, non-zero when the event's name is not a plain identifier or the kernel has no such event.
class FtraceWatchMessage : public AbstructMessage<FtraceWatchMessage> {
public:
    FtraceWatchMessage(Framework::Task* requester, std::string system, std::string event, bool unwatch)
        : requester(requester), system(std::move(system)), event(std::move(event)), unwatch(unwatch)
    {
    }

    Framework::Task* requester;  // not owned
    std::string system;
    std::string event;
    bool unwatch;
};

// The task "ftrace_task". That a task of this class exists means that trace events can be had.
class FtraceTask : public Framework::Task, public AbstructMessage<FtraceWatchMessage>::Receiver {
public:
    using Framework::Task::Task;
    ~FtraceTask() override;
};

}  // namespace Engine
