// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/TraceDecoder.h"

#include <traceevent/event-parse.h>

#include <limits>
#include <new>
#include <utility>

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
    const bool isText = Has(field, TEP_FIELD_IS_STRING);
    if (Has(field, TEP_FIELD_IS_DYNAMIC)) {
        if (!isText) {
            return std::nullopt;
        }
        return Has(field, TEP_FIELD_IS_RELATIVE) ? Shape::RelativeLoc : Shape::DataLoc;
    }
    if (Has(field, TEP_FIELD_IS_ARRAY)) {
        return isText ? std::optional{Shape::FixedText} : std::nullopt;
    }
    return Shape::Number;
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

void TraceDecoder::HandleDeleter::operator()(tep_handle* handle) const
{
    tep_free(handle);
}

TraceDecoder::TraceDecoder() : handle(tep_alloc())
{
    if (handle == nullptr) {
        throw std::bad_alloc{};
    }
    // The library would print what it thinks of print formats, which nobody here uses, to the standard error.
    tep_set_loglevel(TEP_LOG_NONE);
    tep_set_long_size(handle.get(), sizeof(long));
}

TraceDecoder::~TraceDecoder() = default;

std::optional<TraceDecoder::Format> TraceDecoder::Parse(const std::string& system, const std::string& event,
                                                        const std::string& text)
{
    const tep_event* parsed = tep_find_event_by_name(handle.get(), system.c_str(), event.c_str());
    if (parsed == nullptr) {
        // The result is an error for a print format that the library does not know as well; the fields are there then.
        tep_parse_event(handle.get(), text.c_str(), text.size(), system.c_str());
        parsed = tep_find_event_by_name(handle.get(), system.c_str(), event.c_str());
    }
    if (parsed == nullptr || parsed->id <= 0 || parsed->id > std::numeric_limits<std::uint16_t>::max()) {
        return std::nullopt;
    }
    Format format;
    format.id = static_cast<std::uint16_t>(parsed->id);
    Append(format.fields, parsed->format.common_fields);
    Append(format.fields, parsed->format.fields);
    return BeginsWithId(format.fields) ? std::optional{std::move(format)} : std::nullopt;
}

}  // namespace Engine
