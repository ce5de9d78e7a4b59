// SPDX-License-Identifier: Apache-2.0
// Takes into the metadata cache what the bundles of containers, and the engines that have to be asked, say of a
// container as soon as the registry comes upon it.
#pragma once

#include <deque>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "host/container/BundleFinder.h"
#include "host/container/MetadataCache.h"

namespace Engine {

// Ownership: `system` and `cache` are not owned and outlive the reader.
// Thread:    Step one at a time, the others any. No lock is held while a file is read.
// Errors:    a file that is too large, no regular file, or no such document is logged once, and costs its container the
//            names. Throws nothing but std::bad_alloc.
class BundleReader {
public:
    static constexpr std::size_t maxFileBytes = 1024UL * 1024;
    // Containers that are remembered, and that may wait to be read; what is beyond has no names from here.
    static constexpr std::size_t maxContainers = MetadataCache::maxRecords;

    // `wake` is called, on the thread of Want, when Step has something to do. `ask`: asks the engines about a
    // container, within Step; false when one of them does not know it.
    BundleReader(SDK::SystemView& system, BundleFinder finder, MetadataCache& cache, std::function<void()> wake,
                 std::function<bool(const std::string& id)> ask)
        : system(system), finder(std::move(finder)), cache(cache), wake(std::move(wake)), ask(std::move(ask))
    {
    }

    // A container has been come upon, by its process `pid`. Each is read once; one whose bundle was not found, or that
    // an engine does not know, is looked for again when it is `announced`: its runtime has ended by then, what stays
    // beside it can be asked, and the engine has made it.
    void Want(const std::string& id, int pid, bool announced);

    // An engine has come: what it says of the containers that have been come upon is wanted.
    void AskAgain();

    // Whether the container will have been read soon.
    bool IsAwaited(const std::string& id) const;

    // Reads the bundles that are wanted, and has the engines asked about one container. True: there are more.
    bool Step();

    // Forgets every container but these.
    void KeepOnly(const std::unordered_set<std::string_view>& living);

private:
    enum class State { Wanted, Found, Missing, MissingTwice };
    struct Container {
        State state = State::Wanted;
        bool wasAnnounced = false;
        bool isSecond = false;  // the second search
        bool hasBundle = false;
    };
    struct Wanted {
        std::string id;
        std::vector<BundleFinder::Ancestor> ancestors;
    };

    void ReadBundles();
    bool Read(const Wanted& wanted);

    SDK::SystemView& system;
    const BundleFinder finder;
    MetadataCache& cache;
    const std::function<void()> wake;
    const std::function<bool(const std::string& id)> ask;
    mutable std::mutex mutex;
    std::unordered_map<std::string, Container> containers;
    std::deque<Wanted> queue;
    std::deque<std::string> unasked;  // the engines, about these
};

}  // namespace Engine
