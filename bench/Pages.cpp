// SPDX-License-Identifier: Apache-2.0
#include "bench/Pages.h"

#include <sched.h>
#include <sys/syscall.h>
#include <traceevent/event-parse.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <exception>
#include <thread>

#include "host/ftrace/LiveTrace.h"
#include "sdk/FileUtils.h"

extern "C" {
#include <traceevent/kbuffer.h>
}

namespace Engine::Bench {
namespace {

using Support::Bytes;

constexpr std::size_t cpus = 2;
constexpr int callsOfThread = 12'000;
constexpr std::size_t bufferKb = 8192;  // for each CPU: more than all the calls need

std::string EventName(const char* call)
{
    return std::string("sys_enter_") + call;
}

// With arguments that the kernel refuses.
void MakeCalls(std::size_t cpu)
{
    cpu_set_t wanted;
    CPU_ZERO(&wanted);
    CPU_SET(cpu, &wanted);
    ::sched_setaffinity(0, sizeof wanted, &wanted);  // where it fails, both may share a CPU
    for (int i = 0; i < callsOfThread; ++i) {
        ::syscall(SYS_getdents64, -1, 0, 0);
        ::syscall(SYS_ptrace, -1, 0, 0, 0);
        ::syscall(SYS_setns, -1, 0);
    }
}

std::deque<Bytes> ReadPages(RawPipe& pipe)
{
    std::deque<Bytes> pages;
    for (Bytes page(Support::pageBytes);; page.resize(Support::pageBytes)) {
        const std::size_t bytes = pipe.ReadPage(page);
        if (bytes == 0) {
            return pages;
        }
        page.resize(bytes);
        pages.push_back(page);
    }
}

// False when this process may not record or something else goes wrong.
bool Record(Recording& recording)
{
    try {
        LiveTrace trace("containerescape-bench-" + std::to_string(::getpid()), bufferKb);
        for (const char* call : recordedCalls) {
            const std::string event = EventName(call);
            const KnownEvent* known = trace.Catalog()->Find("syscalls", event);
            std::string& format = recording.formats.emplace_back();
            if (known == nullptr || trace.Record(*known) != 0 ||
                SDK::FileUtils::ReadFile("/sys/kernel/tracing/events/syscalls/" + event + "/format", format, 65536)) {
                return false;
            }
        }
        {
            std::array<std::jthread, cpus> threads;
            for (std::size_t cpu = 0; cpu < cpus; ++cpu) {
                threads[cpu] = std::jthread{MakeCalls, cpu};
            }
        }
        trace.StopAll();
        for (RawPipe* pipe : trace.Pipes()) {
            recording.pages.push_back(ReadPages(*pipe));
        }
        recording.origin = "recorded from this kernel";
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

std::string MakeFormat(const char* call, int id)
{
    std::string text = "name: " + EventName(call) + "\nID: " + std::to_string(id) +
                       "\nformat:\n"
                       "\tfield:unsigned short common_type;\toffset:0;\tsize:2;\tsigned:0;\n"
                       "\tfield:unsigned char common_flags;\toffset:2;\tsize:1;\tsigned:0;\n"
                       "\tfield:unsigned char common_preempt_count;\toffset:3;\tsize:1;\tsigned:0;\n"
                       "\tfield:int common_pid;\toffset:4;\tsize:4;\tsigned:1;\n\n"
                       "\tfield:int __syscall_nr;\toffset:8;\tsize:4;\tsigned:1;\n";
    for (const auto& [name, offset] : {std::pair{"fd", 16}, {"buffer", 24}, {"count", 32}}) {
        text += std::string("\tfield:unsigned long ") + name + ";\toffset:" + std::to_string(offset) +
                ";\tsize:8;\tsigned:0;\n";
    }
    return text + "\nprint fmt: \"fd: 0x%08lx\", ((unsigned long)(REC->fd))\n";
}

// Two CPUs that take turns every few events.
Recording Made()
{
    constexpr std::size_t pagesOfCpu = 1200;
    constexpr std::uint64_t distance = 1000;
    constexpr std::size_t recordBytes = 40;
    constexpr std::size_t kinds = std::size(recordedCalls);
    constexpr std::uint16_t firstId = 780;
    Recording recording;
    recording.origin = "made by hand";
    recording.pages.resize(cpus);
    for (std::size_t kind = 0; kind < kinds; ++kind) {
        recording.formats.push_back(MakeFormat(recordedCalls[kind], static_cast<int>(firstId + kind)));
    }
    for (std::size_t cpu = 0; cpu < cpus; ++cpu) {
        std::uint64_t when = 1 + cpu * 3 * distance;
        std::size_t event = 0;
        while (recording.pages[cpu].size() < pagesOfCpu) {
            Support::PageBuilder page{when};
            for (;; when += ++event % 4 == 0 ? 4 * distance : distance) {
                const auto id = static_cast<std::uint16_t>(firstId + event % kinds);
                if (!page.Add(when, Support::Record(id, static_cast<int>(1'000'000 + cpu), recordBytes))) {
                    break;
                }
            }
            recording.pages[cpu].push_back(page.Page());
        }
    }
    return recording;
}

Recording Make()
{
    Recording recording;
    if (!Record(recording)) {
        recording = Made();
    }
    recording.events = BareDecoder{recording.formats}.Decode(recording.pages,
                                                             [&recording](int pid) { recording.threads.insert(pid); });
    return recording;
}

}  // namespace

const Recording& TheRecording()
{
    static const Recording recording = Make();
    return recording;
}

void Report(benchmark::State& state, std::size_t seen)
{
    state.SetLabel(TheRecording().origin);
    if (seen != static_cast<std::size_t>(state.iterations()) * TheRecording().events || seen == 0) {
        state.SkipWithError("events were lost on the way");
    }
    state.SetItemsProcessed(static_cast<std::int64_t>(seen));
}

struct BareDecoder::State {
    std::unique_ptr<tep_handle, decltype(&tep_free)> tep{tep_alloc(), tep_free};
    std::unique_ptr<kbuffer, decltype(&kbuffer_free)> buffer{
        kbuffer_alloc(KBUFFER_LSIZE_8, KBUFFER_ENDIAN_SAME_AS_HOST), kbuffer_free};
    std::array<std::byte, Support::pageBytes + 16> page{};  // the decoder may look past a page's end
    tep_record record{};

    bool Take(void* data, unsigned long long when)
    {
        record.data = data;
        record.ts = when;
        record.size = data == nullptr ? 0 : kbuffer_event_size(buffer.get());
        return data != nullptr;
    }
};

BareDecoder::BareDecoder(const std::vector<std::string>& formats) : state(std::make_unique<State>())
{
    tep_set_loglevel(TEP_LOG_NONE);
    for (const std::string& format : formats) {
        tep_parse_event(state->tep.get(), format.c_str(), format.size(), "syscalls");
    }
}

BareDecoder::~BareDecoder() = default;

// Copies the page as a read would. False when it holds no record.
bool BareDecoder::Load(const Bytes& page)
{
    std::memcpy(state->page.data(), page.data(), page.size());
    kbuffer_load_subbuffer(state->buffer.get(), state->page.data());
    unsigned long long when = 0;
    void* data = kbuffer_read_event(state->buffer.get(), &when);
    return state->Take(data, when);
}

bool BareDecoder::Next()
{
    unsigned long long when = 0;
    void* data = kbuffer_next_event(state->buffer.get(), &when);
    return state->Take(data, when);
}

int BareDecoder::Pid() const
{
    tep_event* event = tep_find_event_by_record(state->tep.get(), &state->record);
    unsigned long long pid = 0;
    tep_get_common_field_val(nullptr, event, "common_pid", &state->record, &pid, 0);
    return static_cast<int>(pid);
}

ReplayedTrace::ReplayedTrace(Framework::Task& task)
    : task(&task),
      catalog(std::make_shared<EventCatalog>([](const std::string&, const std::string& event) {
          std::optional<std::string> found;
          for (const std::string& format : TheRecording().formats) {
              if (format.starts_with("name: " + event + "\n")) {
                  found = format;
              }
          }
          return found;
      })),
      outlet{catalog,
             [&task](const std::string&, std::unique_ptr<Framework::Message> message) {
                 std::shared_ptr<Framework::Message> shared = std::move(message);
                 return task.EnqueueMsg(shared) == 0 ? Sending::Accepted : Sending::Refused;
             },
             &counts},
      table(outlet),
      delivery(table, outlet)
{
    // Of each CPU: so few that no round's events are a backlog, however long this process is kept from running.
    constexpr std::size_t pagesOfRound = 8;
    for (const char* call : recordedCalls) {
        table.Add(task, *catalog->Find("syscalls", EventName(call)));
    }
    std::vector<std::unique_ptr<Engine::RecordStream>> streams;
    for (const auto& pages : TheRecording().pages) {
        auto source = std::make_unique<Support::MemoryPages>(pages);
        sources.push_back(source.get());
        streams.push_back(std::make_unique<CpuStream>(std::move(source), Support::pageBytes, pagesOfRound));
    }
    merger = std::make_unique<TraceMerger>(std::move(streams));
}

void ReplayedTrace::Play()
{
    constexpr int everything = 1024;
    for (Support::MemoryPages* source : sources) {
        source->WindBack();
    }
    do {
        merger->Round(UINT64_MAX, delivery);
        delivery.EndRound({});
        task->BulkConsumeMsg(everything);
    } while (merger->Holding() || merger->IsBehind());
}

}  // namespace Engine::Bench
