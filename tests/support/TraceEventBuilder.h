// SPDX-License-Identifier: Apache-2.0
// Trace events as the kernel would have recorded them: a kind, and a raw record that fits it.
//
//     const auto event = Support::TraceEvent("syscalls", "sys_enter_openat").Number("common_pid", 7);
//     task.Receive(event.Message());
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "host/ftrace/EventKind.h"
#include "messages/FtraceMessages.h"

namespace Support {

class TraceEvent {
public:
    TraceEvent(std::string system, std::string event) : system(std::move(system)), event(std::move(event)) {}

    // `size`: 1, 2, 4 or 8 bytes.
    TraceEvent& Number(const std::string& field, std::int64_t value, std::uint32_t size = 4)
    {
        const std::size_t offset = Append(field, size, Engine::EventKind::Shape::Number);
        std::memcpy(record.data() + offset, &value, size);  // little endian: the low bytes come first
        return *this;
    }

    // A zero-ended text in an array of its own size.
    TraceEvent& Text(const std::string& field, const std::string& value)
    {
        const auto size = static_cast<std::uint32_t>(value.size() + 1);
        const std::size_t offset = Append(field, size, Engine::EventKind::Shape::FixedText);
        std::memcpy(record.data() + offset, value.c_str(), size);
        return *this;
    }

    // When it was recorded; 0 otherwise.
    TraceEvent& At(std::chrono::nanoseconds time)
    {
        when = time;
        return *this;
    }

    // Good as long as this event lives and nothing is added to it.
    Engine::FtraceMessage Message() const
    {
        if (!kind) {
            kind.emplace(system, event, fields);
        }
        return {*kind, record.data(), record.size(), when};
    }

private:
    std::size_t Append(const std::string& field, std::uint32_t size, Engine::EventKind::Shape shape)
    {
        const std::size_t offset = record.size();
        fields.push_back({field, static_cast<std::uint32_t>(offset), size, true, shape});
        record.resize(offset + size);
        kind.reset();
        return offset;
    }

    std::string system;
    std::string event;
    std::vector<Engine::EventKind::Field> fields;
    std::vector<std::byte> record;
    std::chrono::nanoseconds when{0};
    mutable std::optional<Engine::EventKind> kind;
};

inline TraceEvent Fork(int parent, const std::string& parentComm, int child)
{
    return TraceEvent("sched", "sched_process_fork")
        .Number("common_pid", parent)
        .Text("parent_comm", parentComm)
        .Number("parent_pid", parent)
        .Number("child_pid", child);
}

inline TraceEvent Exec(int pid, const std::string& filename)
{
    return TraceEvent("sched", "sched_process_exec")
        .Number("common_pid", pid)
        .Text("filename", filename)
        .Number("pid", pid);
}

inline TraceEvent Exit(int pid)
{
    return TraceEvent("sched", "sched_process_exit").Number("common_pid", pid).Number("pid", pid);
}

// The entry of a system call; `number` is its x86-64 number.
inline TraceEvent Syscall(int pid, const std::string& name, int number = 0)
{
    return TraceEvent("syscalls", "sys_enter_" + name).Number("common_pid", pid).Number("__syscall_nr", number);
}

}  // namespace Support
