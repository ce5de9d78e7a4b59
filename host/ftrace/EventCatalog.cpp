// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/EventCatalog.h"

#include <utility>

#include "host/ftrace/EventName.h"

namespace Engine {

EventCatalog::EventCatalog(FormatReader readFormat) : readFormat(std::move(readFormat))
{
}

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
    const std::optional<std::string> text = readFormat(system, kernelEvent);
    std::optional<TraceDecoder::Format> format = text ? decoder.Parse(system, kernelEvent, *text) : std::nullopt;
    if (!format) {
        return nullptr;
    }
    KnownEvent entry{format->id, kernelEvent, EventKind{system, event, std::move(format->fields)}};
    return &known.try_emplace(entry.kind.Name(), std::move(entry)).first->second;
}

}  // namespace Engine
