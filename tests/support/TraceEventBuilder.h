// SPDX-License-Identifier: Apache-2.0
// Trace events as the kernel would have recorded them: a kind, and a raw record that fits it.
//
//     const auto event = Support::TraceEvent("syscalls", "sys_enter_openat", 7);
//     task.Receive(event.Message());
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "host/ftrace/EventKind.h"
#include "messages/FtraceMessages.h"

namespace Support {

class TraceEvent {
public:
    // `pid`: of the process on whose behalf the kernel recorded it.
    TraceEvent(const std::string& system, const std::string& event, int pid) : kind(system, event, {})
    {
        Number("common_pid", pid);
    }

    TraceEvent& Number(const std::string& field, std::int32_t value)
    {
        return Append(field, &value, sizeof value, Shape::Number);
    }

    // A zero-ended text in an array of its own size.
    TraceEvent& Text(const std::string& field, const std::string& value)
    {
        return Append(field, value.c_str(), static_cast<std::uint32_t>(value.size() + 1), Shape::FixedText);
    }

    // `when`: it was recorded. Good as long as this event lives and nothing is added to it.
    Engine::FtraceMessage Message(std::chrono::nanoseconds when = {}) const
    {
        return {kind, record.data(), record.size(), when};
    }

private:
    using Shape = Engine::EventKind::Shape;

    TraceEvent& Append(const std::string& name, const void* value, std::uint32_t size, Shape shape)
    {
        fields.push_back({name, static_cast<std::uint32_t>(record.size()), size, true, shape});
        kind = {kind.System(), kind.Event(), fields};
        const auto* bytes = static_cast<const std::byte*>(value);
        record.insert(record.end(), bytes, bytes + size);
        return *this;
    }

    std::vector<Engine::EventKind::Field> fields;
    Engine::EventKind kind;
    std::vector<std::byte> record;
};

inline TraceEvent Fork(int parent, const std::string& parentComm, int child)
{
    TraceEvent event("sched", "sched_process_fork", parent);
    return event.Text("parent_comm", parentComm).Number("parent_pid", parent).Number("child_pid", child);
}

inline TraceEvent Exec(int pid, const std::string& filename)
{
    return TraceEvent("sched", "sched_process_exec", pid).Text("filename", filename).Number("pid", pid);
}

inline TraceEvent Exit(int pid)
{
    return TraceEvent("sched", "sched_process_exit", pid).Number("pid", pid);
}

// The entry of a system call; `number` is its x86-64 number.
inline TraceEvent Syscall(int pid, const std::string& name, int number = 0)
{
    return TraceEvent("syscalls", "sys_enter_" + name, pid).Number("__syscall_nr", number);
}

}  // namespace Support
