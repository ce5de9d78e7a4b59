// SPDX-License-Identifier: Apache-2.0
// What is the same for all events of one kind: its name and where its fields lie in a record.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

namespace Engine {

// Never changed after it was made; shared by any threads. Made from the kernel's format file by EventCatalog, or from
// a list of fields where events are recorded or written by a test.
class EventKind {
public:
    enum class Shape : std::uint8_t {
        Number,      // 1, 2, 4 or 8 bytes
        FixedText,   // char[n]
        DataLoc,     // 32 bits: offset from the record's start in the low half, length in the high half
        RelativeLoc  // the same, offset counted from the end of this field
    };

    struct Field {
        std::string name;
        std::uint32_t offset = 0;
        std::uint32_t size = 0;
        bool isSigned = false;
        Shape shape = Shape::Number;
    };

    EventKind(std::string system, std::string event, std::vector<Field> fields);

    const std::string& Name() const { return name; }      // "sched:sched_process_fork"
    const std::string& System() const { return system; }  // "sched"
    const std::string& Event() const { return event; }    // "sched_process_fork"

    const std::vector<Field>& Fields() const { return fields; }

    // Null when the event has no such field. A look-up without allocation. Two fields are asked for several times with
    // every event; where they lie is found once for all events of the kind.
    const Field* Find(std::string_view field) const
    {
        if (Is(field, commonPidName)) {
            return At(commonPid);
        }
        return Is(field, syscallNumberName) ? At(syscallNumber) : Search(field);
    }

private:
    static constexpr char commonPidName[] = "common_pid";
    static constexpr char syscallNumberName[] = "__syscall_nr";
    static constexpr std::size_t absent = ~std::size_t{0};

    // With a length that the compiler knows this is a few loads, where a comparison of two views is a library call.
    template <std::size_t size>
    static bool Is(std::string_view field, const char (&name)[size])
    {
        return field.size() == size - 1 && std::memcmp(field.data(), name, size - 1) == 0;
    }

    const Field* At(std::size_t index) const { return index == absent ? nullptr : &fields[index]; }
    const Field* Search(std::string_view field) const;
    std::size_t IndexOf(std::string_view field) const;

    std::string system;
    std::string event;
    std::string name;
    std::vector<Field> fields;
    std::size_t commonPid;
    std::size_t syscallNumber;
};

}  // namespace Engine
