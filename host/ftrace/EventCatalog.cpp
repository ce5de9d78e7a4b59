// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/EventCatalog.h"

#include <traceevent/event-parse.h>

#include <limits>
#include <new>
#include <utility>
#include <vector>

#include "host/ftrace/EventName.h"

namespace Engine {
namespace {

using Field = EventKind::Field;
using Shape = EventKind::Shape;

bool Has(const tep_format_field& field, unsigned long flag)
{
    return (field.flags & flag) != 0;
}

std::optional<Shape> ShapeOf(const tep_format_field& field)
{
    const bool isDynamic = Has(field, TEP_FIELD_IS_DYNAMIC);
    if (!isDynamic && !Has(field, TEP_FIELD_IS_ARRAY)) {
        return Shape::Number;
    }
    if (!Has(field, TEP_FIELD_IS_STRING)) {
        return std::nullopt;
    }
    return !isDynamic ? Shape::FixedText : Has(field, TEP_FIELD_IS_RELATIVE) ? Shape::RelativeLoc : Shape::DataLoc;
}

void Append(std::vector<Field>& fields, const tep_format_field* first)
{
    for (const tep_format_field* field = first; field != nullptr; field = field->next) {
        const std::optional<Shape> shape = ShapeOf(*field);
        if (shape && field->offset >= 0 && field->size >= 0) {
            fields.push_back({field->name, static_cast<std::uint32_t>(field->offset),
                              static_cast<std::uint32_t>(field->size), Has(*field, TEP_FIELD_IS_SIGNED), *shape});
        }
    }
}

// struct trace_entry (include/linux/trace_events.h) begins with it, and the streams read it there.
bool BeginsWithId(const std::vector<Field>& fields)
{
    return !fields.empty() && fields.front().name == "common_type" && fields.front().offset == 0 &&
           fields.front().size == sizeof(std::uint16_t);
}

}  // namespace

void EventCatalog::HandleDeleter::operator()(tep_handle* handle) const
{
    tep_free(handle);
}

EventCatalog::EventCatalog(FormatReader readFormat) : readFormat(std::move(readFormat)), decoder(tep_alloc())
{
    if (decoder == nullptr) {
        throw std::bad_alloc{};
    }
    // The library would print what it thinks of print formats, which are not used here, to the standard error.
    tep_set_loglevel(TEP_LOG_NONE);
    tep_set_long_size(decoder.get(), sizeof(long));
}

EventCatalog::~EventCatalog() = default;

const KnownEvent* EventCatalog::Find(const std::string& system, const std::string& event)
{
    if (!EventName::IsPlain(system) || !EventName::IsPlain(event)) {
        return nullptr;
    }
    if (const auto found = known.find(system + ":" + event); found != known.end()) {
        return &found->second;
    }
    if (const KnownEvent* learnt = Learn(system, event, event); learnt != nullptr) {
        return learnt;
    }
    const std::string alias = system == "syscalls" ? EventName::KernelAlias(event) : std::string{};
    return alias.empty() ? nullptr : Learn(system, event, alias);
}

const KnownEvent* EventCatalog::Learn(const std::string& system, const std::string& event,
                                      const std::string& kernelEvent)
{
    const tep_event* parsed = tep_find_event_by_name(decoder.get(), system.c_str(), kernelEvent.c_str());
    if (parsed == nullptr) {
        const std::optional<std::string> text = readFormat(system, kernelEvent);
        if (!text) {
            return nullptr;
        }
        // The result is an error for a print format that the library does not know as well; the fields are there then.
        tep_parse_event(decoder.get(), text->c_str(), text->size(), system.c_str());
        parsed = tep_find_event_by_name(decoder.get(), system.c_str(), kernelEvent.c_str());
    }
    if (parsed == nullptr || parsed->id <= 0 || parsed->id > std::numeric_limits<std::uint16_t>::max()) {
        return nullptr;
    }
    std::vector<Field> fields;
    Append(fields, parsed->format.common_fields);
    Append(fields, parsed->format.fields);
    if (!BeginsWithId(fields)) {
        return nullptr;
    }
    KnownEvent entry{static_cast<std::uint16_t>(parsed->id), kernelEvent, {system, event, std::move(fields)}};
    return &known.try_emplace(entry.kind.Name(), std::move(entry)).first->second;
}

}  // namespace Engine
