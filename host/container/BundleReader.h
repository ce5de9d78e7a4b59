// SPDX-License-Identifier: Apache-2.0
// Takes into the metadata cache what the bundles of containers, and the engines that have to be asked, say of a
// container as soon as the registry comes upon it. Reading takes no time, asking may take long, and a container may
// live for milliseconds: they are steps for two threads.
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
// Thread:    ReadWanted and AskNext one at a time each, the others any. No lock is held while a file is read or an
// engine
//            is asked.
// Errors:    a file that is too large, no regular file, or no such document is logged once, and costs its container the
//            names. Throws nothing but std::bad_alloc.
class BundleReader {
public:
    static constexpr std::size_t maxFileBytes = 1024UL * 1024;
    // Containers that are remembered, and that may wait to be read; what is beyond has no names from here.
    static constexpr std::size_t maxContainers = MetadataCache::maxRecords;

    // Each may be called on any thread.
    struct Calls {
        std::function<void()> wakeReader;  // ReadWanted has something to do
        std::function<void()> wakeAsker;   // AskNext has something to do
        // Asks the engines about a container, within AskNext; false when one of them does not know it.
        std::function<bool(const std::string& id)> ask;
    };
    BundleReader(SDK::SystemView& system, BundleFinder finder, MetadataCache& cache, Calls calls)
        : system(system), finder(std::move(finder)), cache(cache), calls(std::move(calls))
    {
    }

    // A container has been come upon, by its process `pid`. Each is read once; one whose bundle has not been found, or
    // that an engine does not know, is looked for again when it is `announced`: its runtime has ended by then, what
    // stays beside it can be asked, and the engine has made it.
    void Want(const std::string& id, int pid, bool announced);

    // An engine has come: what it says of the containers that have been come upon is wanted.
    void AskAgain();

    // Whether the container will have been read soon.
    bool IsAwaited(const std::string& id) const;

    // Reads the bundles that are wanted.
    void ReadWanted();

    // Has the engines asked about one container whose bundle has been read. True: there are more.
    bool AskNext();

    // Forgets every container but these.
    void KeepOnly(const std::unordered_set<std::string_view>& living);

private:
    struct Container {
        int searches = 0;  // that are under way: for the bundle, then with the engines
        bool wasAnnounced = false;
        bool isSecond = false;  // the second search
        bool hasBundle = false;
        bool isKnown = false;  // to all engines
    };
    struct Wanted {
        std::string id;
        std::vector<BundleFinder::Ancestor> ancestors;
    };

    bool Read(const Wanted& wanted);

    SDK::SystemView& system;
    const BundleFinder finder;
    MetadataCache& cache;
    const Calls calls;
    mutable std::mutex mutex;
    std::unordered_map<std::string, Container> containers;
    std::deque<Wanted> queue;
    std::deque<std::string> unasked;  // the engines, about these
};

}  // namespace Engine
