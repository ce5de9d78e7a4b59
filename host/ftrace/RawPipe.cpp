// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/RawPipe.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>

#include "host/ftrace/TracefsInstance.h"

namespace Engine {
namespace {

// The number after `key` at the start of a line ("overrun: 12") other than the first; 0 when there is no such line.
std::uint64_t NumberAfter(std::string_view text, const std::string& key)
{
    const std::size_t line = text.find("\n" + key);
    std::uint64_t number = 0;
    if (line != std::string_view::npos) {
        std::from_chars(text.data() + line + 1 + key.size(), text.data() + text.size(), number);
    }
    return number;
}

}  // namespace

KernelLoss KernelLoss::Parse(std::string_view stats)
{
    return {NumberAfter(stats, "overrun: "),
            NumberAfter(stats, "dropped events: ") + NumberAfter(stats, "commit overrun: "),
            NumberAfter(stats, "read events: "), 0, false};
}

RawPipe::RawPipe(const TracefsInstance& instance, int cpu)
    : pipe(instance.OpenCpuFile(cpu, "trace_pipe_raw", O_RDONLY | O_NONBLOCK)),
      stats(instance.OpenCpuFile(cpu, "stats", O_RDONLY))
{
}

std::size_t RawPipe::ReadPage(std::span<std::byte> page)
{
    for (;;) {
        const ssize_t count = ::read(pipe.Get(), page.data(), page.size());
        if (count >= 0) {
            return static_cast<std::size_t>(count);
        }
        if (errno != EINTR) {
            return 0;
        }
    }
}

// The kernel makes the text at a read from offset 0 (tracing_stats_read, kernel/trace/trace.c), so one descriptor
// serves for good.
KernelLoss RawPipe::TakeLoss()
{
    std::array<char, 1024> text{};
    const ssize_t count = ::pread(stats.Get(), text.data(), text.size(), 0);
    if (count <= 0) {
        return {};
    }
    const KernelLoss now = KernelLoss::Parse({text.data(), static_cast<std::size_t>(count)});
    const bool wasCleared = now.read < seen.read || now.overrun < seen.overrun || now.dropped < seen.dropped;
    const KernelLoss before = wasCleared ? KernelLoss{} : seen;
    seen = now;
    return {now.overrun - before.overrun, now.dropped - before.dropped, now.read - before.read, 0, wasCleared};
}

}  // namespace Engine
