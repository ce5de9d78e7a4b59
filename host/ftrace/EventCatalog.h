// SPDX-License-Identifier: Apache-2.0
// The events that were asked for so far, each with its id in the kernel and its kind, as the format files have them.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "host/ftrace/EventKind.h"

struct tep_handle;

namespace Engine {

// An event under the name by which subscribers know it. Two names may stand for one event of the kernel.
struct KnownEvent {
    std::uint16_t id;         // in records
    std::string kernelEvent;  // its name in tracefs
    EventKind kind;           // named as it was asked for

    bool IsSyscall() const { return kind.System() == "syscalls"; }
};

// Entries are never changed or removed: batches on their way to subscribers refer to them, and keep the catalogue.
// Thread: Find one at a time; what it returned, any. Throws std::bad_alloc only.
class EventCatalog {
public:
    // The text of an event's format file, by system and event; empty when the kernel has no such event.
    using FormatReader = std::function<std::optional<std::string>(const std::string&, const std::string&)>;

    explicit EventCatalog(FormatReader readFormat);
    EventCatalog(const EventCatalog&) = delete;
    EventCatalog& operator=(const EventCatalog&) = delete;
    ~EventCatalog();

    // Null for names that are not plain identifiers, for events that the kernel lacks or describes unreadably, and for
    // those whose records would not begin with the 16-bit id. Of an event's fields, arrays of anything but characters
    // are skipped: no reader of this system takes them.
    const KnownEvent* Find(const std::string& system, const std::string& event);

private:
    struct HandleDeleter {
        void operator()(tep_handle* handle) const;
    };

    const KnownEvent* Learn(const std::string& system, const std::string& event, const std::string& kernelEvent);

    FormatReader readFormat;
    std::unique_ptr<tep_handle, HandleDeleter> decoder;
    std::map<std::string, KnownEvent> known;  // by EventKind::Name
};

}  // namespace Engine
