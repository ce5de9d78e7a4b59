// SPDX-License-Identifier: Apache-2.0
// What the BPF program recorded of a process at its exec, as people read it.
#pragma once

#include <memory>

#include "host/ftrace/SyscallProbeLayout.h"
#include "host/sdk/SystemView.h"

namespace Engine::ExecutedProgram {

// `process`: its id. What the record has no room for stays empty: paths, and arguments beyond CE_ARGUMENT_BYTES.
std::shared_ptr<const SDK::ProcessDetails> Details(int process, const CeProgram& program);

}  // namespace Engine::ExecutedProgram
