// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/WatchTable.h"

#include <algorithm>

#include "sdk/ProcessUtils.h"

namespace Engine {

namespace {

bool ExcludesPath(const Watch& watch, std::string_view path)
{
    const auto& excluded = watch.options.excludedPaths;
    return std::any_of(excluded.begin(), excluded.end(), [&](const std::string& top) { return LiesWithin(path, top); });
}

bool ExcludesProcess(const Watch& watch, int pid)
{
    const auto& excluded = watch.options.excludedProcesses;
    SDK::ProcessUtils::procStatus status;
    if (excluded.empty() || SDK::ProcessUtils::GetProcessStatusInfo(pid, status) != 0) {
        return false;
    }
    return std::find(excluded.begin(), excluded.end(), status.name) != excluded.end();
}

bool WithinLimit(Watch& watch, WatchTable::TimePoint now)
{
    if (watch.options.limit <= 0) {
        return true;
    }
    if (now - watch.secondBegan >= std::chrono::seconds{1}) {
        watch.secondBegan = now;
        watch.sentInSecond = 0;
    }
    return watch.sentInSecond++ < watch.options.limit;
}

// Whether the watch's subscriber is to be notified of an access that the watch covers.
bool Notifies(Watch& watch, WatchTable::TimePoint now)
{
    ++watch.hits;
    if (watch.options.countOnly || !WithinLimit(watch, now)) {
        return false;
    }
    watch.spent = watch.options.once;
    return true;
}

void AddTo(std::vector<WatchMatch>& matches, const Watch& watch, std::uint64_t mask)
{
    const auto same = std::find_if(matches.begin(), matches.end(), [&](const WatchMatch& match) {
        return match.watch->subscriber == watch.subscriber;
    });
    if (same != matches.end()) {
        same->mask |= mask;
    } else {
        matches.push_back({&watch, mask});
    }
}

}  // namespace

Watch& WatchTable::Add(const Framework::Task* subscriber, const std::string& text, const WatchEntry& entry,
                       const _FileNotifyOpt& options)
{
    const auto known = std::find_if(watches.begin(), watches.end(), [&](const Watch& watch) {
        return watch.subscriber == subscriber && watch.text == text;
    });
    if (known != watches.end()) {
        ++known->count;
        known->entry.masks |= entry.masks;
        known->spent = false;
        return *known;
    }
    Watch& watch = watches.emplace_back();
    watch.number = ++lastNumber;
    watch.subscriber = subscriber;
    watch.text = text;
    watch.entry = entry;
    watch.options = options;
    watch.path = entry.path;
    return watch;
}

bool WatchTable::Remove(const Framework::Task* subscriber, const std::string& text)
{
    const auto known = std::find_if(watches.begin(), watches.end(), [&](const Watch& watch) {
        return watch.subscriber == subscriber && watch.text == text;
    });
    if (known == watches.end()) {
        return false;
    }
    if (--known->count == 0) {
        watches.erase(known);
    }
    return true;
}

void WatchTable::Match(std::string_view path, std::uint64_t mask, int pid, TimePoint now,
                       std::vector<WatchMatch>& matches)
{
    matches.clear();
    for (Watch& watch : watches) {
        const std::uint64_t wanted = watch.entry.masks.Wanted(mask);
        if (wanted == 0 || watch.spent || !LiesWithin(path, watch.path) || ExcludesPath(watch, path) ||
            ExcludesProcess(watch, pid)) {
            continue;
        }
        if (Notifies(watch, now)) {
            AddTo(matches, watch, wanted);
        }
    }
}

const Watch* WatchTable::Find(int number) const
{
    const auto known =
        std::find_if(watches.begin(), watches.end(), [&](const Watch& watch) { return watch.number == number; });
    return known == watches.end() ? nullptr : &*known;
}

}  // namespace Engine
