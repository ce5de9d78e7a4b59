// SPDX-License-Identifier: Apache-2.0
// Reads the kernel's format files: which id an event has in its records, and where its fields lie.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/ftrace/EventKind.h"

struct tep_event;
struct tep_format_field;
struct tep_handle;

namespace Engine {

// Thread: one at a time. Throws std::bad_alloc only.
class TraceDecoder {
public:
    struct Format {
        std::uint16_t id = 0;
        std::vector<EventKind::Field> fields;  // the common ones first
    };

    TraceDecoder();
    TraceDecoder(const TraceDecoder&) = delete;
    TraceDecoder& operator=(const TraceDecoder&) = delete;
    ~TraceDecoder();

    // `text`: the event's format file, its lines as the kernel writes them. Empty when it cannot be understood or when
    // records would not begin with the 16-bit id. Arrays of anything but characters are left out: no reader of this
    // system takes them.
    std::optional<Format> Parse(const std::string& system, const std::string& event, const std::string& text);

private:
    struct HandleDeleter {
        void operator()(tep_handle* handle) const;
    };
    std::unique_ptr<tep_handle, HandleDeleter> handle;
};

}  // namespace Engine
