// SPDX-License-Identifier: Apache-2.0
#include <array>
#include <cstring>

#include "host/ftrace/EventKind.h"
#include "messages/FtraceMessages.h"

namespace Engine {
namespace {

using Shape = EventKind::Shape;

struct View {
    const std::byte* data;
    std::size_t size;

    bool Holds(std::size_t offset, std::size_t length) const { return offset <= size && length <= size - offset; }
    std::string_view Text(std::size_t offset, std::size_t length) const
    {
        return Holds(offset, length) ? std::string_view{reinterpret_cast<const char*>(data) + offset, length}
                                     : std::string_view{};
    }
};

template <class T>
T Load(const std::byte* from)
{
    T value;
    std::memcpy(&value, from, sizeof value);
    return value;
}

std::int64_t Integer(const std::byte* from, std::uint32_t size, bool isSigned)
{
    switch (size) {
        case 1:
            return isSigned ? Load<std::int8_t>(from) : std::int64_t{Load<std::uint8_t>(from)};
        case 2:
            return isSigned ? Load<std::int16_t>(from) : std::int64_t{Load<std::uint16_t>(from)};
        case 4:
            return isSigned ? Load<std::int32_t>(from) : std::int64_t{Load<std::uint32_t>(from)};
        case 8:
            return Load<std::int64_t>(from);
        default:
            return 0;
    }
}

// Empty when any of it would lie outside the record. Where the text of a __data_loc or __rel_loc field lies: 16 bits
// offset, 16 bits length (include/trace/stages/stage1_struct_define.h).
std::string_view Text(const View& record, const EventKind::Field& field)
{
    if (field.shape == Shape::FixedText) {
        return record.Text(field.offset, field.size);
    }
    if (field.shape == Shape::Number || field.size != sizeof(std::uint32_t) ||
        !record.Holds(field.offset, field.size)) {
        return {};
    }
    const auto location = Load<std::uint32_t>(record.data + field.offset);
    const std::size_t base = field.shape == Shape::RelativeLoc ? std::size_t{field.offset} + field.size : 0;
    return record.Text(base + (location & 0xffffU), location >> 16U);
}

// The texts last asked for on this thread. The strings keep their capacity, so what is read again and again is not
// allocated again.
std::string& NextSlot()
{
    thread_local std::array<std::string, 4> slots;
    thread_local std::size_t next = 0;
    std::string& slot = slots[next];
    next = (next + 1) % slots.size();
    return slot;
}

}  // namespace

const std::string& FtraceMessage::name() const
{
    return kind->Name();
}

std::int64_t FtraceMessage::get_number(std::string_view field) const
{
    const EventKind::Field* found = kind->Find(field);
    if (found == nullptr || found->shape != Shape::Number || !View{record, size}.Holds(found->offset, found->size)) {
        return 0;
    }
    return Integer(record + found->offset, found->size, found->isSigned);
}

const std::string& FtraceMessage::get_string(std::string_view field) const
{
    std::string& slot = NextSlot();
    slot.clear();
    if (const EventKind::Field* found = kind->Find(field); found != nullptr) {
        const std::string_view text = Text({record, size}, *found);
        slot.assign(text.substr(0, text.find('\0')));
    }
    return slot;
}

FtraceTask::~FtraceTask() = default;

}  // namespace Engine
