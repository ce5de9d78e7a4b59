// SPDX-License-Identifier: Apache-2.0
#include "host/container/ProcListing.h"

#include <algorithm>
#include <map>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace Engine {

namespace {

using Groups = std::vector<SDK::Cgroup>;
using Listed = SyscallFilter::Listed;

// Numbers lists of control groups in the order in which they are come upon.
class GroupLists {
public:
    explicit GroupLists(ProcListing& listing) : listing(listing) {}

    std::size_t IndexOf(Groups groups)
    {
        const auto [known, isNew] = indices.try_emplace(std::move(groups), listing.groups.size());
        if (isNew) {
            listing.groups.push_back(known->first);
        }
        return known->second;
    }

private:
    ProcListing& listing;
    std::map<Groups, std::size_t> indices;
};

ProcListing FromProc(SDK::SystemView& system)
{
    ProcListing listing;
    GroupLists lists(listing);
    for (const int pid : system.Processes()) {
        std::optional<Groups> groups = system.Cgroups(pid);
        const auto stat = system.StatOf(pid);
        if (!groups || !stat) {
            continue;
        }
        listing.processes.push_back({pid, stat->parent, lists.IndexOf(std::move(*groups)), stat->started});
        for (const int tid : system.Threads(pid)) {
            if (const auto its = tid != pid ? system.StatOf(tid) : std::nullopt) {
                listing.threads.push_back({tid, listing.processes.size() - 1, its->started});
            }
        }
    }
    return listing;
}

// A process whose control groups stand for those of all that have the same number.
struct Sample {
    int process;
    std::chrono::nanoseconds started;
    Groups groups;
};
using Samples = std::unordered_map<std::uint64_t, Sample>;  // by number

// Whether it was there with that number before and after /proc was asked: then that is what /proc told of.
bool Holds(const Sample& sample, std::uint64_t number, const std::vector<Listed>& now)
{
    const auto found = std::lower_bound(now.begin(), now.end(), sample.process,
                                        [](const Listed& each, int thread) { return each.thread < thread; });
    return found != now.end() && found->thread == sample.process && found->started == sample.started &&
           found->groups == number;
}

// The control groups by their number, as far as they can be told, and all threads as they are then.
std::pair<Samples, std::vector<Listed>> Sampled(SDK::SystemView& system, SyscallFilter& filter)
{
    constexpr int rounds = 4;  // another one each time that something has come or changed meanwhile
    Samples known;
    Samples fresh;
    std::vector<Listed> threads;
    for (int round = 0; round < rounds && (round == 0 || !fresh.empty()); ++round) {
        threads = filter.List({});
        for (auto& [number, sample] : fresh) {
            if (Holds(sample, number, threads)) {
                known.emplace(number, std::move(sample));
            }
        }
        fresh.clear();
        for (const Listed& each : threads) {
            if (each.thread == each.process && each.groups != 0 && !known.contains(each.groups) &&
                !fresh.contains(each.groups)) {
                if (std::optional<Groups> groups = system.Cgroups(each.process)) {
                    fresh.emplace(each.groups, Sample{each.process, each.started, std::move(*groups)});
                }
            }
        }
    }
    return {std::move(known), std::move(threads)};
}

ProcListing FromKernel(SDK::SystemView& system, SyscallFilter& filter)
{
    ProcListing listing;
    GroupLists lists(listing);
    const auto [samples, threads] = Sampled(system, filter);
    std::unordered_map<std::uint64_t, std::size_t> byNumber;
    for (const auto& [number, sample] : samples) {
        byNumber.emplace(number, lists.IndexOf(sample.groups));
    }
    std::unordered_set<int> withThreads;
    for (const Listed& each : threads) {
        if (each.thread != each.process) {
            withThreads.insert(each.process);
        }
    }
    std::unordered_map<int, std::size_t> byPid;
    for (const Listed& each : threads) {
        const bool hasEnded = each.groups == 0 && !withThreads.contains(each.process);  // a zombie; there may be many
        if (each.thread != each.process || hasEnded) {
            continue;
        }
        const auto known = byNumber.find(each.groups);
        std::optional<Groups> groups = known == byNumber.end() ? system.Cgroups(each.process) : std::nullopt;
        if (known == byNumber.end() && !groups) {
            continue;
        }
        byPid.emplace(each.process, listing.processes.size());
        listing.processes.push_back({each.process, each.parent,
                                     groups ? lists.IndexOf(std::move(*groups)) : known->second, each.started,
                                     groups ? 0 : each.groups, each.identity});
    }
    for (const Listed& each : threads) {
        if (const auto process = byPid.find(each.process); process != byPid.end() && each.thread != each.process) {
            listing.threads.push_back({each.thread, process->second, each.started});
        }
    }
    return listing;
}

}  // namespace

ProcListing ProcListing::Of(SDK::SystemView& system, SyscallFilter* filter)
{
    ProcListing listing = filter != nullptr ? FromKernel(system, *filter) : ProcListing{};
    return listing.processes.empty() ? FromProc(system) : listing;
}

}  // namespace Engine
