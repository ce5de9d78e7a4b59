// SPDX-License-Identifier: Apache-2.0
#include "host/filenotify/WatchedHandles.h"

#include <sys/fanotify.h>

namespace Engine {

namespace {

constexpr std::uint64_t comings = FAN_CREATE | FAN_MOVED_TO;
constexpr std::uint64_t goings = FAN_DELETE | FAN_MOVED_FROM;

}  // namespace

void WatchedHandles::Set(const std::vector<Place>& places)
{
    std::map<Key, WatchedTree> next;
    for (const Place& wanted : places) {
        auto known = trees.extract(KeyOfPlace(wanted));
        WatchedTree& tree = known.empty() ? next.try_emplace(KeyOfPlace(wanted), marks).first->second
                                          : next.insert(std::move(known)).position->second;
        tree.MoveTo(wanted, maxHandles / places.size());
    }
    trees = std::move(next);
    for (auto& [key, tree] : trees) {
        tree.WalkIfIncomplete(trees.size());
    }
    givenUp = false;
}

bool WatchedHandles::IsMarked(const Place& place) const
{
    const auto known = trees.find(KeyOfPlace(place));
    return known != trees.end() && known->second.IsMarkedAt(place.place);
}

void WatchedHandles::StartOver()
{
    marks.StartOver();
    for (auto& [key, tree] : trees) {
        tree.MarksLost();
    }
}

void WatchedHandles::Follow(const FanotifyEvent& event)
{
    if (trees.empty() || (event.mask & (comings | goings)) == 0) {
        return;
    }
    const std::uint64_t parent = KeyOf(event.directory);
    for (auto& [key, tree] : trees) {
        const bool wasMarked = tree.IsMarked();
        tree.Follow(event, parent);
        givenUp = givenUp || (wasMarked && !tree.IsMarked());
    }
}

void WatchedHandles::Settle()
{
    for (auto& [key, tree] : trees) {
        const bool wasMarked = tree.IsMarked();
        tree.Settle();
        givenUp = givenUp || (wasMarked && !tree.IsMarked());
    }
}

void WatchedHandles::EventsLost()
{
    for (auto& [key, tree] : trees) {
        givenUp = givenUp || tree.IsMarked();
        tree.EventsLost();
    }
}

std::vector<int> WatchedHandles::WatchesOf(const FanotifyEvent& event, std::uint64_t& mask)
{
    std::vector<int> watches;
    mask = event.mask & ~goings & ~std::uint64_t{FAN_MOVED_TO};
    for (auto& [key, tree] : trees) {
        const bool wasMarked = tree.IsMarked();
        const WatchedTree::Relation relation = tree.RelationOf(event, trees.size());
        givenUp = givenUp || (wasMarked && !tree.IsMarked());
        if (relation == WatchedTree::Relation::None) {
            continue;
        }
        const bool isDirectorysMove = (event.mask & FAN_ONDIR) != 0;
        mask = relation == WatchedTree::Relation::Directory || isDirectorysMove ? event.mask : mask;
        watches.push_back(key.first);
    }
    return watches;
}

}  // namespace Engine
