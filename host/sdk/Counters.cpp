// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/Counters.h"

#include <mutex>

#include "host/sdk/InheritingMutex.h"

namespace SDK {

namespace {

// A map's nodes never move, so a reference to a counter stays good. Never destroyed: threads count until the end.
struct Table {
    InheritingMutex mutex;  // metrics are read by threads of normal priority
    std::map<std::string, Counters::Counter> counters;
};

Table& All()
{
    static auto* const table = new Table;
    return *table;
}

}  // namespace

Counters::Counter& Counters::Get(const std::string& name)
{
    Table& table = All();
    const std::lock_guard lock(table.mutex);
    return table.counters[name];
}

std::map<std::string, std::uint64_t> Counters::Snapshot()
{
    Table& table = All();
    const std::lock_guard lock(table.mutex);
    return {table.counters.begin(), table.counters.end()};
}

}  // namespace SDK
