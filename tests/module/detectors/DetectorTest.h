// SPDX-License-Identifier: Apache-2.0
// A detector attached to the real detection task, driven on the test's thread.
#pragma once

#include <gmock/gmock.h>

#include <memory>
#include <string>
#include <vector>

#include "ContainerEscapeUtil.h"
#include "tests/support/DetectTaskFixture.h"

namespace Support {

class DetectorTest : public DetectTaskFixture {
protected:
    static constexpr int shell = 4711;
    static constexpr int other = 4712;
    static constexpr int unknown = 4713;  // not in the task's table

    void SetUp() override
    {
        DetectTaskFixture::SetUp();
        for (const int pid : {shell, other}) {
            world.PutInContainer(pid, "c1");
            Know(pid);
        }
    }

    TraceEvent Entry(int pid, const std::string& call)
    {
        return Syscall(pid, call, Engine::ContainerEscapeUtil::GetSyscallNumber(call));
    }

    void Exit(Engine::BaseSubmodule& detector, int pid)
    {
        auto info = std::make_shared<Engine::ContainerProcMessage::ProcInfo>();
        info->pid = pid;
        detector.Receive(Engine::ContainerProcMessage(false, info));
    }

    std::vector<int> AlarmedPids()
    {
        std::vector<int> pids;
        for (const Json::Value& alarm : Alarms()) {
            pids.push_back(alarm["process_info"][0]["process_pid"].asInt());
        }
        return pids;
    }
};

}  // namespace Support
