// SPDX-License-Identifier: Apache-2.0
// The kernel's trace as the trace task uses it: an instance, the readers of its CPUs, and which events are recorded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "host/ftrace/EventCatalog.h"
#include "host/ftrace/RawPipe.h"
#include "host/ftrace/TraceMerger.h"
#include "host/ftrace/TracefsInstance.h"

namespace Engine {

// Thread: one at a time.
class LiveTrace {
public:
    // As TracefsInstance's; throws std::system_error, the text says what to do.
    LiveTrace(const std::string& name, std::size_t bufferKb);

    TraceMerger& Merger() { return *merger; }

    // Owned by the merger; one for each CPU that the kernel has a buffer for.
    const std::vector<RawPipe*>& Pipes() const { return pipes; }

    // Shared with the batches that are on their way.
    const std::shared_ptr<EventCatalog>& Catalog() const { return catalog; }

    // Starts or stops the recording. 0, or the errno that says why not.
    int Record(const KnownEvent& event);
    int Stop(const KnownEvent& event);

    // The thread whose system calls are left out from the next Record on: the reader's. With them each round would
    // cause the next one, for ever, where somebody subscribes to a call that reading makes (read, epoll_wait).
    void LeaveOutThread(int tid) { ownThread = tid; }

    // Stops the recording of all events; what is in the buffers stays.
    void StopAll() { instance.StopEvents(); }

    // What the kernel lost since the last call, of all CPUs.
    KernelLoss TakeLoss();

    const std::string& Name() const { return instance.Name(); }

private:
    TracefsInstance instance;  // first: what is open in it must be closed before it goes
    std::vector<RawPipe*> pipes;
    std::unique_ptr<TraceMerger> merger;
    std::shared_ptr<EventCatalog> catalog;
    int ownThread = 0;  // none
};

}  // namespace Engine
