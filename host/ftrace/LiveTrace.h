// SPDX-License-Identifier: Apache-2.0
// The kernel's trace as the trace task uses it: an instance, the readers of its CPUs, and which events are recorded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "host/ftrace/EventCatalog.h"
#include "host/ftrace/RawPipe.h"
#include "host/ftrace/SyscallProbe.h"
#include "host/ftrace/TraceMerger.h"
#include "host/ftrace/TracefsInstance.h"

namespace Engine {

class CpuStream;

// Thread: one at a time.
class LiveTrace {
public:
    // Instance and buffer as TracefsInstance's; throws std::system_error, the text says what to do. `probe`: where
    // events come from, as far as it knows them; null: the trace has them all.
    LiveTrace(const std::string& name, std::size_t bufferKb, std::unique_ptr<SyscallProbe> probe = nullptr);

    TraceMerger& Merger() { return *merger; }

    // Readable when there is a record. That of a CPU which was never online reports EPOLLERR.
    const std::vector<int>& Descriptors() const { return descriptors; }

    // Owned by the merger; one for each CPU that the kernel has a buffer for.
    const std::vector<RawPipe*>& Pipes() const { return pipes; }

    // Null when the kernel excludes no process.
    SyscallFilter* Filter() { return probe == nullptr ? nullptr : &probe->Filter(); }

    // Shared with the batches that are on their way.
    const std::shared_ptr<EventCatalog>& Catalog() const { return catalog; }

    // Starts or stops the recording. 0, or the errno that says why not.
    int Record(const KnownEvent& event);
    int Stop(const KnownEvent& event);

    // The reader's thread, which is excluded from the next Record on: each round would cause the next one, for ever,
    // where a task subscribes to a call that reading makes (read, epoll_wait).
    void ExcludeThread(int tid);

    // Stops the recording of all events; what is in the buffers stays.
    void StopAll();

    // As TraceStatus's. Any thread.
    const char* CallPlace() const { return probe == nullptr ? "trace events" : probe->Place(); }

    void SetWhyWithoutBpf(std::string why) { whyWithoutBpf = std::move(why); }
    const std::string& WhyWithoutBpf() const { return whyWithoutBpf; }

    // As TracefsInstance's. Any thread.
    std::vector<std::string> Repair() { return instance.Repair(); }

    // What the kernel lost since the last call, of all CPUs: events of the trace, and system calls from the probe.
    KernelLoss TakeLoss();
    SyscallLoss TakeSyscallLoss();

private:
    struct Readers {
        const CpuStream* stream;   // the merger's
        std::uint64_t events = 0;  // that the kernel has handed out, to any program
    };

    std::optional<std::string> Format(const std::string& system, const std::string& event);

    TracefsInstance instance;  // first: what is open in it must be closed before it goes
    std::unique_ptr<SyscallProbe> probe;
    std::string whyWithoutBpf;
    std::vector<RawPipe*> pipes;
    std::vector<Readers> readers;
    std::vector<int> descriptors;
    std::unique_ptr<TraceMerger> merger;
    std::shared_ptr<EventCatalog> catalog;
    int ownThread = 0;  // none
};

}  // namespace Engine
