// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/LifeFormats.h"

#include <array>
#include <cstddef>
#include <string_view>
#include <vector>

namespace Engine::LifeFormats {
namespace {

struct Name {
    std::string_view system;
    std::string_view event;
};

// In the order of CeLifeEvent.
constexpr std::array<Name, CE_LIFE_EVENTS> names{{
    {"sched", "sched_process_fork"},
    {"sched", "sched_process_exec"},
    {"sched", "sched_process_exit"},
    {"cgroup", "cgroup_attach_task"},
}};

struct Field {
    std::string_view declaration;
    std::size_t offset;
    std::size_t size;
    bool isSigned;
};

const std::vector<Field>& CommonFields()
{
    static const std::vector<Field> fields{
        {"unsigned short common_type", offsetof(CeEventHead, type), 2, false},
        {"unsigned char common_flags", offsetof(CeEventHead, flags), 1, false},
        {"unsigned char common_preempt_count", offsetof(CeEventHead, preemptCount), 1, false},
        {"int common_pid", offsetof(CeEventHead, thread), 4, true},
    };
    return fields;
}

const std::vector<Field>& FieldsOf(CeLifeEvent event)
{
    static const std::array<std::vector<Field>, CE_LIFE_EVENTS> fields{{
        {{"char parent_comm[16]", offsetof(CeForkEvent, parentName), CE_NAME_BYTES, false},
         {"pid_t parent_pid", offsetof(CeForkEvent, parent), 4, true},
         {"char child_comm[16]", offsetof(CeForkEvent, childName), CE_NAME_BYTES, false},
         {"pid_t child_pid", offsetof(CeForkEvent, child), 4, true}},
        {{"__data_loc char[] filename", offsetof(CeExecEvent, filename), 4, false},
         {"pid_t pid", offsetof(CeExecEvent, thread), 4, true},
         {"pid_t old_pid", offsetof(CeExecEvent, oldThread), 4, true},
         {"u32 place", offsetof(CeExecEvent, place), 4, false}},
        {{"char comm[16]", offsetof(CeExitEvent, name), CE_NAME_BYTES, false},
         {"pid_t pid", offsetof(CeExitEvent, thread), 4, true},
         {"int prio", offsetof(CeExitEvent, priority), 4, true}},
        {{"int dst_root", offsetof(CeMoveEvent, hierarchy), 4, true},
         {"u32 owner", offsetof(CeMoveEvent, owner), 4, false},
         {"u64 dst_id", offsetof(CeMoveEvent, group), 8, false},
         {"int pid", offsetof(CeMoveEvent, thread), 4, true},
         {"int parent", offsetof(CeMoveEvent, parent), 4, true},
         {"__data_loc char[] dst_path", offsetof(CeMoveEvent, path), 4, false},
         {"u32 identity", offsetof(CeMoveEvent, identity), 4, false},
         {"u32 identity_before", offsetof(CeMoveEvent, identityBefore), 4, false},
         {"unsigned int born_in_setup", offsetof(CeMoveEvent, bornInSetUp), 4, false},
         {"char executed[32]", offsetof(CeMoveEvent, executed), CE_SET_UP_NAME, false}},
    }};
    return fields[event];
}

void Append(std::string& text, const std::vector<Field>& fields)
{
    for (const Field& field : fields) {
        text.append("\tfield:").append(field.declaration);
        text += ";\toffset:" + std::to_string(field.offset) + ";\tsize:" + std::to_string(field.size) +
                ";\tsigned:" + (field.isSigned ? "1" : "0") + ";\n";
    }
}

}  // namespace

std::optional<CeLifeEvent> EventOf(const std::string& system, const std::string& event)
{
    for (std::size_t index = 0; index < names.size(); ++index) {
        if (names[index].system == system && names[index].event == event) {
            return static_cast<CeLifeEvent>(index);
        }
    }
    return std::nullopt;
}

std::string Format(CeLifeEvent event, const std::string& kernelFormat)
{
    constexpr std::string_view begin = "format:\n";
    std::string text = kernelFormat.substr(0, kernelFormat.find(begin));
    text += begin;
    Append(text, CommonFields());
    text += '\n';
    Append(text, FieldsOf(event));
    return text + "\nprint fmt: \"\"\n";
}

}  // namespace Engine::LifeFormats
