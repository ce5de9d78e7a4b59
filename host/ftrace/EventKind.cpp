// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/EventKind.h"

#include <utility>

namespace Engine {

EventKind::EventKind(std::string system, std::string event, std::vector<Field> fields)
    : system(std::move(system)),
      event(std::move(event)),
      name(this->system + ":" + this->event),
      fields(std::move(fields)),
      commonPid(IndexOf(commonPidName)),
      syscallNumber(IndexOf(syscallNumberName))
{
}

// Linear: an event has about ten fields, most of another length, which is what the comparison looks at first.
const EventKind::Field* EventKind::Search(std::string_view field) const
{
    for (const Field& candidate : fields) {
        if (candidate.name == field) {
            return &candidate;
        }
    }
    return nullptr;
}

std::size_t EventKind::IndexOf(std::string_view field) const
{
    const Field* found = Search(field);
    return found == nullptr ? absent : static_cast<std::size_t>(found - fields.data());
}

}  // namespace Engine
