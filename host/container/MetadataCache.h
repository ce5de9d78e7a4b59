// SPDX-License-Identifier: Apache-2.0
// What is known about containers, keyed by their ids.
#pragma once

#include <chrono>
#include <cstddef>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

#include "messages/ContainerMessages.h"

namespace Engine {

// Any thread; no call waits for anything but another such call.
// A record is never changed once it is in: a newer one takes its place, and a holder of the old one keeps it.
class MetadataCache {
public:
    using Clock = std::chrono::steady_clock;
    using Namespaces = std::map<std::string, std::string>;

    static constexpr std::size_t maxRecords = 10000;
    // How long a container that was removed still has its record: alarms about it come late.
    static constexpr std::chrono::minutes keepGone{5};
    // Of the namespaces of containers that have gone, so many of the latest.
    static constexpr std::size_t keptNamespaces = 1024;

    // Null when the container is not known.
    std::shared_ptr<ContainerInfo> Find(const std::string& id) const;
    // The same, but for a container that only an unprivileged user of the host speaks for: an image that such a user
    // claims must not keep alarms back.
    std::shared_ptr<ContainerInfo> FindVouchedFor(const std::string& id) const;

    // As FindVouchedFor. Empty when it is not known.
    std::string ImageNameOf(const std::string& id) const;

    // The same, for a notice about the container: TakeLate tells when another name has come since.
    std::string AnnounceImageOf(const std::string& id);
    // Whether that is so, of any container, since the last call.
    bool TakeLate();

    // Takes in what one source tells of a container; its image's name in the form that Docker shows. What is vouched
    // for counts more, then what an engine tells, then what is newer. What that lacks, the other record adds, unless it
    // alone is not vouched for. Namespaces that were recorded at the container's start replace those that it has. False
    // when the cache is full of containers that still exist.
    struct Source {
        int engine;  // its number; 0: the container's bundle
        bool isVouchedFor;
        bool tellsEnds;  // by MarkGone and KeepOnly; otherwise KeepLiving
    };
    bool Put(ContainerInfo info, Source source = {1, true, true});

    // The namespaces that a container's first process had when it started. They are kept apart, because the engine may
    // not have told about the container yet. The latest recording counts: a container may start again.
    void RecordNamespaces(const std::string& id, const Namespaces& namespaces);
    void ForgetNamespaces(const std::string& id);
    // Of containers that are not among `living`, forgets older recordings of namespaces, and begins to forget the
    // records of which no engine will tell the end.
    void KeepLiving(const std::unordered_set<std::string_view>& living, Clock::time_point now);

    // The container does not exist any more, if it was that engine which told of it.
    void MarkGone(const std::string& id, int engine, Clock::time_point now);
    // The same for every container but these.
    void KeepOnly(const std::set<std::string>& ids, int engine, Clock::time_point now);
    std::size_t Size() const;

    // Drops what has been gone for long enough.
    void Purge(Clock::time_point now);

private:
    struct Slot {
        std::shared_ptr<ContainerInfo> info;
        Clock::time_point gone = Clock::time_point::max();
        Source source{};
    };

    bool MakeRoom();
    void NoteImage(const ContainerInfo& info, const Source& source);

    mutable std::mutex mutex;
    std::unordered_map<std::string, Slot> records;
    std::unordered_map<std::string, Namespaces> recorded;
    std::deque<std::string> recordedOrder;  // ids of `recorded`, oldest first; some may have gone from it
    std::unordered_map<std::string, std::string> announced;  // images' names by containers
    bool isLate = false;
};

}  // namespace Engine
