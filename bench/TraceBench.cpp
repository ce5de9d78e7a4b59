// SPDX-License-Identifier: Apache-2.0
// What an event costs from the kernel's page to the task that drops it, beside what decoding alone costs on the same
// pages. Aim: at most one and a half times as much.
#include <benchmark/benchmark.h>
#include <traceevent/event-parse.h>

#include <array>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "framework/Task.h"
#include "host/ftrace/EventCatalog.h"
#include "host/ftrace/EventDelivery.h"
#include "host/ftrace/SubscriptionTable.h"
#include "host/ftrace/TraceMerger.h"
#include "tests/host/ftrace/PageBuilder.h"

extern "C" {
#include <traceevent/kbuffer.h>
}

namespace {

using Engine::Testing::Bytes;

constexpr std::uint16_t eventId = 782;
constexpr std::size_t cpus = 2;
constexpr std::size_t pagesOfCpu = 128;

const std::string format =
    "name: sys_enter_openat\nID: 782\nformat:\n"
    "\tfield:unsigned short common_type;\toffset:0;\tsize:2;\tsigned:0;\n"
    "\tfield:unsigned char common_flags;\toffset:2;\tsize:1;\tsigned:0;\n"
    "\tfield:unsigned char common_preempt_count;\toffset:3;\tsize:1;\tsigned:0;\n"
    "\tfield:int common_pid;\toffset:4;\tsize:4;\tsigned:1;\n\n"
    "\tfield:int __syscall_nr;\toffset:8;\tsize:4;\tsigned:1;\n"
    "\tfield:int dfd;\toffset:16;\tsize:8;\tsigned:0;\n"
    "\tfield:const char * filename;\toffset:24;\tsize:8;\tsigned:0;\n"
    "\tfield:int flags;\toffset:32;\tsize:8;\tsigned:0;\n"
    "\tfield:umode_t mode;\toffset:40;\tsize:8;\tsigned:0;\n\n"
    "print fmt: \"dfd: 0x%08lx\", ((unsigned long)(REC->dfd))\n";

// Two CPUs that take turns every few events, as two busy processes do.
struct Recording {
    std::array<std::vector<Bytes>, cpus> pages;
    std::size_t events = 0;

    Recording()
    {
        constexpr std::uint64_t distance = 1000;
        constexpr std::size_t argumentBytes = 40;
        for (std::size_t cpu = 0; cpu < cpus; ++cpu) {
            std::uint64_t when = 1 + cpu * 3 * distance;
            while (pages[cpu].size() < pagesOfCpu) {
                Engine::Testing::PageBuilder page{when};
                for (;; when += ++events % 4 == 0 ? 4 * distance : distance) {
                    const auto pid = static_cast<std::int32_t>(1000 + events % 97);
                    if (!page.Add(when, Engine::Testing::Record(eventId, pid, Bytes(argumentBytes)))) {
                        break;
                    }
                }
                pages[cpu].push_back(page.Page());
            }
        }
    }
};

const Recording& TheRecording()
{
    static const Recording recording;
    return recording;
}

// Gives the recorded pages once, then nothing until it is wound back.
class RecordedPages final : public Engine::PageSource {
public:
    explicit RecordedPages(const std::vector<Bytes>& pages) : pages(&pages) {}

    std::size_t ReadPage(std::span<std::byte> page) override
    {
        if (next == pages->size()) {
            return 0;
        }
        const Bytes& from = (*pages)[next++];
        std::memcpy(page.data(), from.data(), from.size());
        return from.size();
    }
    void WindBack() { next = 0; }

private:
    const std::vector<Bytes>* pages;
    std::size_t next = 0;
};

void CountEvents(benchmark::State& state, std::size_t seen)
{
    if (seen != static_cast<std::size_t>(state.iterations()) * TheRecording().events) {
        state.SkipWithError("events were lost on the way");
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(seen));
}

void DecodingAlone(benchmark::State& state)
{
    const std::unique_ptr<tep_handle, decltype(&tep_free)> tep{tep_alloc(), tep_free};
    const std::unique_ptr<kbuffer, decltype(&kbuffer_free)> buffer{
        kbuffer_alloc(KBUFFER_LSIZE_8, KBUFFER_ENDIAN_SAME_AS_HOST), kbuffer_free};
    tep_parse_event(tep.get(), format.c_str(), format.size(), "syscalls");
    std::array<std::byte, Engine::Testing::pageBytes> page{};
    std::size_t seen = 0;
    unsigned long long pids = 0;
    for ([[maybe_unused]] auto _ : state) {
        for (const auto& pages : TheRecording().pages) {
            RecordedPages source{pages};
            while (source.ReadPage(page) != 0) {
                kbuffer_load_subbuffer(buffer.get(), page.data());
                unsigned long long when = 0;
                for (void* data = kbuffer_read_event(buffer.get(), &when); data != nullptr;
                     data = kbuffer_next_event(buffer.get(), &when)) {
                    tep_record record{};
                    record.ts = when;
                    record.data = data;
                    record.size = kbuffer_event_size(buffer.get());
                    tep_event* event = tep_find_event_by_record(tep.get(), &record);
                    unsigned long long pid = 0;
                    tep_get_common_field_val(nullptr, event, "common_pid", &record, &pid, 0);
                    pids += pid;
                    ++seen;
                }
            }
        }
    }
    benchmark::DoNotOptimize(pids);
    CountEvents(state, seen);
}
BENCHMARK(DecodingAlone);

// Knows as many processes as the detection task does at most, and none of those that the events are of.
class DroppingTask : public Framework::Task, public Engine::AbstractMessage<Engine::FtraceMessage>::Receiver {
public:
    DroppingTask() : Task("dropping", "", Framework::TaskCondition::EventLoop, 1024)
    {
        for (int pid = 0; pid < 640; ++pid) {
            procs[pid * 100 + 50] = pid;
        }
    }

    int Receive(const Engine::FtraceMessage& event) override
    {
        ++seen;
        return procs.contains(static_cast<int>(event.get_number("common_pid"))) ? 0 : -1;
    }

    std::size_t seen = 0;

private:
    std::map<int, int> procs;
};

void FromPageToTask(benchmark::State& state)
{
    const auto catalog = std::make_shared<Engine::EventCatalog>(
        [](const std::string&, const std::string&) { return std::optional{format}; });
    DroppingTask task;
    Engine::SubscriptionTable table;
    table.Add(task, *catalog->Find("syscalls", "sys_enter_openat"));
    Engine::EventDelivery delivery{table, catalog,
                                   [&task](const std::string&, std::unique_ptr<Framework::Message> message) {
                                       std::shared_ptr<Framework::Message> shared = std::move(message);
                                       return task.EnqueueMsg(shared) == 0 ? Engine::EventDelivery::Sending::Accepted
                                                                           : Engine::EventDelivery::Sending::Refused;
                                   }};
    std::vector<RecordedPages*> sources;
    std::vector<std::unique_ptr<Engine::CpuStream>> streams;
    for (const auto& pages : TheRecording().pages) {
        auto source = std::make_unique<RecordedPages>(pages);
        sources.push_back(source.get());
        streams.push_back(
            std::make_unique<Engine::CpuStream>(std::move(source), Engine::Testing::pageBytes, std::size_t{64}));
    }
    Engine::TraceMerger merger{std::move(streams)};
    for ([[maybe_unused]] auto _ : state) {
        for (RecordedPages* source : sources) {
            source->WindBack();
        }
        do {
            merger.Round(UINT64_MAX, delivery);
            delivery.Flush();
            task.BulkConsumeMsg(1024);
        } while (merger.Holding() || merger.IsBehind());
    }
    CountEvents(state, task.seen);
}
BENCHMARK(FromPageToTask);

}  // namespace
