// SPDX-License-Identifier: Apache-2.0
// A detector attached to the real detection task, driven on the test's thread.
#pragma once

#include <gmock/gmock.h>

#include <initializer_list>
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

    // System calls of a known process, one after the other. The alarm filter's window passes after each.
    void Call(int pid, const std::vector<std::string>& calls)
    {
        for (const std::string& call : calls) {
            task->Receive(Entry(pid, call).Message());
            world.now += 3;
        }
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

// The constants of an alarm class, as receivers know them.
struct AlarmClass {
    const char* id;
    const char* name;
    int phase;
    int tag;
    int category;
    int type;
    int confidence;
};

inline void ExpectClass(const Json::Value& alarm, const AlarmClass& expected)
{
    EXPECT_EQ(alarm["event_classid"], expected.id);
    EXPECT_EQ(alarm["event_name"], expected.name);
    EXPECT_EQ(alarm["attack_phase"], expected.phase);
    EXPECT_EQ(alarm["attack_tag"], expected.tag);
    EXPECT_EQ(alarm["severity"], 3);
    EXPECT_EQ(alarm["event_category"], expected.category);
    EXPECT_EQ(alarm["event_type"], expected.type);
    EXPECT_EQ(alarm["confidence"], expected.confidence);
}

// A world in which a process has gone but for its executable: what a detector looked up by itself shows.
class GoneSystem : public FakeSystem {
public:
    int Status(int /*pid*/, SDK::ProcessUtils::procStatus& /*status*/) override { return -1; }
};

}  // namespace Support
