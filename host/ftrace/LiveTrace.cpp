// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/LiveTrace.h"

#include <algorithm>
#include <cerrno>
#include <system_error>
#include <utility>

#include "host/ftrace/CpuStream.h"

namespace Engine {
namespace {

// Pages of all CPUs together that one round takes at most: some thousand events, a few milliseconds, so that
// subscriptions are served and batches leave under a storm too.
constexpr std::size_t pagesPerRound = 512;
constexpr std::size_t fewestPages = 4;
constexpr std::size_t mostPages = 64;

}  // namespace

LiveTrace::LiveTrace(const std::string& name, std::size_t bufferKb, std::unique_ptr<SyscallProbe> syscallProbe)
    : instance(name, bufferKb), probe(std::move(syscallProbe))
{
    const std::vector<int> cpus = instance.Cpus();
    const std::size_t pageBytes = instance.PageBytes();
    const std::size_t maxPages =
        std::clamp(pagesPerRound / std::max<std::size_t>(cpus.size(), 1), fewestPages, mostPages);
    std::vector<std::unique_ptr<RecordStream>> streams;
    for (const int cpu : cpus) {
        auto pipe = std::make_unique<RawPipe>(instance, cpu);
        if (!pipe->Valid()) {
            throw std::system_error{errno, std::generic_category(),
                                    "cannot read the trace of CPU " + std::to_string(cpu) + " in " + name};
        }
        pipes.push_back(pipe.get());
        descriptors.push_back(pipe->Descriptor());
        auto stream = std::make_unique<CpuStream>(std::move(pipe), pageBytes, maxPages);
        readers.push_back({stream.get()});
        streams.push_back(std::move(stream));
    }
    if (probe != nullptr) {
        for (auto& ring : probe->TakeStreams()) {
            descriptors.push_back(ring->Descriptor());
            streams.push_back(std::move(ring));
        }
    }
    merger = std::make_unique<TraceMerger>(std::move(streams));
    // The catalogue outlives this object in batches that are under way, but is asked through this object only.
    catalog = std::make_shared<EventCatalog>(
        [this](const std::string& system, const std::string& event) { return Format(system, event); });
}

std::optional<std::string> LiveTrace::Format(const std::string& system, const std::string& event)
{
    const std::optional<std::string> text = instance.Format(system, event);
    return text && probe != nullptr ? SyscallProbe::Format(system, event, *text) : text;
}

int LiveTrace::Record(const KnownEvent& event)
{
    if (probe != nullptr && probe->Watch(event)) {
        return 0;
    }
    const std::string& system = event.kind.System();
    if (event.IsSyscall() && ownThread != 0) {
        // Without the filter the event is still worth having.
        instance.SetFilter(system, event.kernelEvent, "common_pid != " + std::to_string(ownThread));
    }
    return instance.SetEvent(system, event.kernelEvent, true) ? 0 : errno;
}

int LiveTrace::Stop(const KnownEvent& event)
{
    if (probe != nullptr && probe->Unwatch(event)) {
        return 0;
    }
    return instance.SetEvent(event.kind.System(), event.kernelEvent, false) ? 0 : errno;
}

void LiveTrace::ExcludeThread(int tid)
{
    ownThread = tid;
    if (probe != nullptr) {
        probe->ExcludeThread(tid);
    }
}

void LiveTrace::StopAll()
{
    instance.StopEvents();
    if (probe != nullptr) {
        probe->UnwatchAll();
    }
}

KernelLoss LiveTrace::TakeLoss()
{
    KernelLoss sum;
    for (std::size_t i = 0; i < pipes.size(); ++i) {
        const KernelLoss loss = pipes[i]->TakeLoss();
        auto& [stream, events] = readers[i];
        events += loss.read;
        if (stream->IsEmpty()) {  // what another program reads is gone from the buffer
            const std::uint64_t own = stream->Records();
            sum.readByOthers += events > own && !loss.wasCleared ? events - own : 0;
            events = own;
        }
        sum.overrun += loss.overrun;
        sum.dropped += loss.dropped;
        sum.wasCleared |= loss.wasCleared;
    }
    return sum;
}

SyscallLoss LiveTrace::TakeSyscallLoss()
{
    return probe == nullptr ? SyscallLoss{} : probe->TakeLoss();
}

}  // namespace Engine
