// SPDX-License-Identifier: Apache-2.0
// The real detection task with its five detectors, driven on the calling thread; what they send is kept by a fake host.
#pragma once

#include <chrono>
#include <cstddef>

#include "sdk/LoggerUtils.h"
#include "tests/support/DetectTask.h"
#include "tests/support/FakeHost.h"

namespace Engine::Bench {

// Counts what its task received.
class CountingTask final : public Support::DetectTask {
public:
    using DetectTask::DetectTask;
    using DetectTask::Receive;

    int Receive(const FtraceMessage& message) override
    {
        ++seen;
        const int result = DetectTask::Receive(message);
        dropped += result == -1 ? 1 : 0;
        return result;
    }

    std::size_t seen = 0;
    std::size_t dropped = 0;
};

// One at a time.
class DetectWorld {
public:
    static constexpr int knownPids = 600;             // about as many as the table keeps
    static constexpr int firstKnown = 1'000'000'000;  // no real one: PID_MAX_LIMIT in include/linux/threads.h is less
    static constexpr const char* container = "5f2c6b1d8e9a4c7f5f2c6b1d8e9a4c7f5f2c6b1d8e9a4c7f5f2c6b1d8e9a4c7f";

    // `window`, `maxCount`: of the brute-force detector.
    explicit DetectWorld(std::chrono::duration<long> window = std::chrono::seconds{1}, unsigned short maxCount = 300,
                         Scope scope = Scope::Thread)
    {
        SDK::LoggerUtils::GetInstance()->SetLevel("notice");  // the agent's
        host.AddFakes();
        host.containers[container] = {container,    "web", "sha256:0123456789abcdef0123456789abcdef",
                                      "shop/web:7", {},    {}};
        task = std::make_unique<CountingTask>(host.Metadata());
        task->AttachDetectors(window, maxCount,
                              {"unshare", "setns", "mount", "pivot_root", "ptrace", "process_vm_writev"}, scope);
        for (int i = 0; i < knownPids; ++i) {
            Know(firstKnown + 97 * i);  // as far apart as real ones
        }
    }

    void Know(int pid) { task->Know(pid, container); }

    Support::FakeHost host;
    std::unique_ptr<CountingTask> task;
};

}  // namespace Engine::Bench
