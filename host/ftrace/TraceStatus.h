// SPDX-License-Identifier: Apache-2.0
// What the trace task records, for what tells the operator.
#pragma once

#include <set>
#include <string>
#include <vector>

namespace Engine {

// Found by a dynamic cast from the task "ftrace_task". Any thread.
class TraceStatus {
public:
    // The events that have a subscriber or the observer now, "system:event", by the names under which they were asked
    // for.
    virtual std::set<std::string> RecordedEvents() = 0;

    // Where the kernel records the system calls: "functions", "sys_enter", both with "and", "trace events"; "nowhere"
    // while none is subscribed to.
    virtual std::string CallPlace() const = 0;

    // Why system calls come from the trace although BPF was wanted; empty: they do not, or were to.
    virtual std::string WhyWithoutBpf() const = 0;

    // Puts back what another program has changed in the trace's settings; a line for each. Waits for the kernel.
    virtual std::vector<std::string> Repair() = 0;

protected:
    ~TraceStatus() = default;
};

}  // namespace Engine
