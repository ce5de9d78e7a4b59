// SPDX-License-Identifier: Apache-2.0
// What the BPF program keeps of each process: whether it is excluded, and its identity.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "host/ftrace/SyscallFilter.h"

struct SyscallProbeProgram;

namespace Engine {

// Works on the maps and variables of the loaded program, which must outlive this.
class ProcessFilter final : public SyscallFilter {
public:
    // All ids of processes are below it, as far as the setting pid_max can be read; later processes with ids from there
    // on are never excluded.
    static std::size_t Limit();

    // Sizes the map of processes for ids below `limit`. Before the program is loaded.
    static void Size(SyscallProbeProgram& program, std::size_t limit);

    // `limit` as it was sized for. Throws std::system_error, the text says why.
    ProcessFilter(SyscallProbeProgram& program, std::size_t limit);
    virtual ~ProcessFilter() = default;

    bool IsExcluded(int process) const override;
    std::optional<Ticket> TicketOf(int process) const override;
    void Exclude(int process, Ticket ticket) override;
    std::vector<Listed> List(const Given& given) override;
    std::uint32_t NewIdentity() override;

    // All may be in a container again: the way of one into it may have been missed.
    void IncludeAll();

private:
    struct Unmap {
        std::size_t bytes;
        void operator()(std::uint16_t* memory) const;
    };

    std::uint16_t* StateOf(int process) const;
    std::vector<Listed> ListThreads();

    SyscallProbeProgram& program;
    const std::size_t limit;
    std::unique_ptr<std::uint16_t[], Unmap> states;  // CeProcesses::state of all
};

}  // namespace Engine
