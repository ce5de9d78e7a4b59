// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/Impairments.h"

#include <array>
#include <mutex>
#include <utility>

namespace SDK {

namespace {

struct State {
    std::mutex mutex;
    std::vector<Impairments::Item> items;
    std::array<std::string, 2> loudest;  // by Source
};

State& All()
{
    static auto* const state = new State;  // never destroyed: threads report until the end
    return *state;
}

}  // namespace

void Impairments::Report(std::string cause, std::string detail)
{
    State& all = All();
    const std::lock_guard lock(all.mutex);
    if (all.items.size() < maxItems) {
        all.items.push_back({std::move(cause), std::move(detail)});
    }
}

std::vector<Impairments::Item> Impairments::Take()
{
    State& all = All();
    const std::lock_guard lock(all.mutex);
    return std::exchange(all.items, {});
}

void Impairments::SetLoudest(Source source, const std::string& container)
{
    State& all = All();
    const std::lock_guard lock(all.mutex);
    all.loudest.at(static_cast<std::size_t>(source)) = container;
}

std::string Impairments::Loudest(Source source)
{
    State& all = All();
    const std::lock_guard lock(all.mutex);
    return all.loudest.at(static_cast<std::size_t>(source));
}

}  // namespace SDK
