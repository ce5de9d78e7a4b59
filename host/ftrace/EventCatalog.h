// SPDX-License-Identifier: Apache-2.0
// The events that were asked for so far, each with its id in the kernel and its kind.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>

#include "host/ftrace/EventKind.h"
#include "host/ftrace/TraceDecoder.h"

namespace Engine {

// An event under the name by which subscribers know it. Two names may stand for one event of the kernel.
struct KnownEvent {
    std::uint16_t id;         // in records
    std::string kernelEvent;  // its name in tracefs
    EventKind kind;           // named as it was asked for

    bool IsSyscall() const { return kind.System() == "syscalls"; }
};

// Entries are never changed or removed: batches on their way to subscribers refer to them, and keep the catalogue.
// Thread: Find one at a time; what it returned, any.
class EventCatalog {
public:
    // The text of an event's format file, by system and event; empty when the kernel has no such event.
    using FormatReader = std::function<std::optional<std::string>(const std::string&, const std::string&)>;

    explicit EventCatalog(FormatReader readFormat);

    // Null for names that are not plain identifiers and for events that the kernel lacks or describes unreadably.
    const KnownEvent* Find(const std::string& system, const std::string& event);

private:
    const KnownEvent* Learn(const std::string& system, const std::string& event, const std::string& kernelEvent);

    FormatReader readFormat;
    TraceDecoder decoder;
    std::map<std::string, KnownEvent> known;  // by EventKind::Name
};

}  // namespace Engine
