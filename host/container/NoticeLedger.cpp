// SPDX-License-Identifier: Apache-2.0
#include "host/container/NoticeLedger.h"

#include <algorithm>

namespace Engine {

bool NoticeLedger::IsKnown(int tid, Nanoseconds now)
{
    const auto found = records.find(tid);
    if (found == records.end() || found->second.exit != alive) {
        return false;
    }
    found->second.lastActive = now;
    return found->second.doubt == doubts;
}

bool NoticeLedger::HoldsDead(int tid) const
{
    const auto found = records.find(tid);
    return found != records.end() && found->second.exit != alive;
}

void NoticeLedger::Insert(int tid, Nanoseconds now, bool certain)
{
    Record& record = records[tid];
    record.lastActive = now;
    record.exit = alive;
    record.doubt = certain ? doubts : 0;
}

void NoticeLedger::MarkDead(int tid, Nanoseconds when)
{
    const auto found = records.find(tid);
    if (found == records.end() || found->second.exit != alive) {
        return;
    }
    found->second.exit = when;
    dead.emplace_back(tid, when);
}

void NoticeLedger::Forget(int tid)
{
    records.erase(tid);
}

void NoticeLedger::Unheard(const std::vector<int>& tids, Nanoseconds now)
{
    for (const int tid : tids) {
        Insert(tid, now, false);
        MarkDead(tid, now);
    }
    if (records.size() > limit) {
        Doubt();
    }
}

std::vector<int> NoticeLedger::MakeRoom(std::size_t more, Nanoseconds now)
{
    std::vector<int> taken;
    if (records.size() + more <= limit) {
        return taken;
    }
    const std::size_t tooMany = std::max(batch, records.size() + more - limit);
    TakeDead(tooMany, now - leastGrace, taken);
    if (records.size() + more > limit) {
        TakeIdle(tooMany - taken.size(), taken);
    }
    return taken;
}

std::vector<int> NoticeLedger::TakeExpired(Nanoseconds now)
{
    std::vector<int> taken;
    TakeDead(records.size(), now - graceAfterExit, taken);
    return taken;
}

std::vector<int> NoticeLedger::Ids() const
{
    std::vector<int> ids;
    ids.reserve(records.size());
    for (const auto& item : records) {
        ids.push_back(item.first);
    }
    return ids;
}

void NoticeLedger::TakeDead(std::size_t most, Nanoseconds notAfter, std::vector<int>& taken)
{
    std::size_t count = 0;
    while (!dead.empty() && dead.front().second <= notAfter && count < most) {
        const auto [tid, when] = dead.front();
        dead.pop_front();
        // The id may be a live process's again, or withdrawn already.
        if (const auto found = records.find(tid); found != records.end() && found->second.exit == when) {
            records.erase(found);
            taken.push_back(tid);
            ++count;
        }
    }
}

void NoticeLedger::TakeIdle(std::size_t most, std::vector<int>& taken)
{
    std::vector<std::pair<Nanoseconds, int>> byActivity;
    byActivity.reserve(records.size());
    for (const auto& [tid, record] : records) {
        byActivity.emplace_back(record.lastActive, tid);
    }
    const std::size_t count = std::min(most, byActivity.size());
    const auto end = byActivity.begin() + static_cast<std::ptrdiff_t>(count);
    std::partial_sort(byActivity.begin(), end, byActivity.end());
    for (auto idle = byActivity.begin(); idle != end; ++idle) {
        records.erase(idle->second);
        taken.push_back(idle->second);
    }
}

}  // namespace Engine
