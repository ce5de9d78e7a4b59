// SPDX-License-Identifier: Apache-2.0
// The agent's own instance of the kernel's trace buffers: made by the constructor, gone after every kind of stop.
#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "host/sdk/FileDescriptor.h"

struct tracefs_instance;

namespace Engine {

// Owner: the trace task. Whatever was opened in the instance must be closed before the destructor, or the instance
// stays until the next start. Thread: one at a time, Repair any. Only the constructor throws.
class TracefsInstance {
public:
    static constexpr const char* namePrefix = "containerescape-agent-";

    // `name`: usually OwnName(). `bufferKb`: KiB for each CPU. Throws std::system_error, the text says what to do.
    TracefsInstance(const std::string& name, std::size_t bufferKb);
    TracefsInstance(const TracefsInstance&) = delete;
    TracefsInstance& operator=(const TracefsInstance&) = delete;
    ~TracefsInstance();

    // The prefix and this process's id.
    static std::string OwnName();

    // Removes the instances of agents that have gone: named after this process, after one that is gone, or after one
    // that runs another program by now (/proc/<pid>/comm differs from our own). A live agent holds files of its
    // instance open, so the kernel keeps it even where this check is wrong, as it is for an agent of another pid
    // namespace. Returns how many were removed.
    static std::size_t RemoveLeftovers();

    // KiB for each CPU where nothing is set. With system calls: enough for 0.1 s of a million of them per second, and
    // all CPUs together take no more than a bound, because the kernel's memory for it cannot be swapped out. Without
    // them: forks, execs and exits, of which the kernel cannot make that many; docs/performance.md has the figures.
    static std::size_t DefaultBufferKb(std::size_t cpus, bool withSystemCalls);

    // CPUs that the kernel has buffers for, ascending.
    std::vector<int> Cpus() const;

    // A file of one CPU ("trace_pipe_raw", "stats"). errno says why there is none.
    SDK::FileDescriptor OpenCpuFile(int cpu, const char* file, int flags) const;

    // Starts or stops the recording of one event in this instance. False with errno.
    bool SetEvent(const std::string& system, const std::string& event, bool recorded);

    // The event's filter in the kernel's own language, "0" for none. False with errno.
    bool SetFilter(const std::string& system, const std::string& event, const std::string& filter);

    // Stops the recording of all events. Records made before stay readable.
    void StopEvents();

    // Compares the instance with what was set here, puts back what another program has changed, and returns a line for
    // each such thing: settings, buffers, events that are off, filtered, or on unasked. A few reads for each event.
    std::vector<std::string> Repair();

    // The text of an event's format file; empty when there is no such event.
    std::optional<std::string> Format(const std::string& system, const std::string& event) const;

    // Bytes that one read of trace_pipe_raw gives at most.
    std::size_t PageBytes() const;

    const std::string& Name() const { return name; }

private:
    struct Setting {
        std::string written;
        std::string shown;  // when it is read back
    };

    void Write(const char* file, const std::string& text) const;
    std::optional<std::string> Read(const std::string& file) const;
    void Configure(std::size_t bufferKb);
    void RepairSetting(const std::string& file, const Setting& setting, std::vector<std::string>& found) const;
    void RemoveTriggers(const std::string& event) const;
    void StopUnasked(std::vector<std::string>& found) const;

    std::string name;
    tracefs_instance* handle = nullptr;
    std::mutex mutex;                         // of the settings, and of what is changed in the kernel by them
    std::map<std::string, Setting> settings;  // by file below the instance
    std::set<std::string> events;             // that are on, "system:event"
    SDK::FileDescriptor freeBuffer;
};

}  // namespace Engine
