// SPDX-License-Identifier: Apache-2.0
#include "host/sdk/CgroupPath.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace {

using SDK::CgroupPath;

const std::string id = "3f4a9c0d1e2b5867a1b2c3d4e5f60718293a4b5c6d7e8f90a1b2c3d4e5f60718";
const std::string other = "00112233445566778899aabbccddeeff00112233445566778899aabbccddeeff";
const std::string podSlice = "/kubepods.slice/kubepods-burstable-pod1f2e3d4c_5b6a_4789_8abc_def012345678.slice";
const std::string build = "k1h8qsx2w0g3v5b7n9m1c4z6p";

TEST(CgroupPathTest, FindsTheContainerAndTakesNothingElseForOne)
{
    const std::vector<std::pair<std::string, std::string>> rows{
        {"/../../docker/" + id, id},
        {"/system.slice:docker:" + id, id},
        {"/kubepods/burstable/pod1f2e3d4c-5b6a-4789-8abc-def012345678/" + id, id},
        {podSlice + "/crio-" + id + ".scope/container", id},
        {"/user.slice/user-1000.slice/user@1000.service/user.slice/libpod-" + id + ".scope/container", id},
        {"/machine.slice/machine-libpod_pod_" + other + ".slice/libpod-" + id + ".scope/container", id},
        {"/lxc.payload/web/init.scope", "web"},
        {"/lxc.payload.web.example/system.slice/ssh.service", "web.example"},
        {"/docker/buildkit/" + build, build},
        {"/system.slice/buildkit-" + build + ".scope", build},
        // A container cannot pass for another by groups below its own.
        {"/system.slice/docker-" + id + ".scope/crio-" + other + ".scope", id},
        {"/lxc.payload.web/docker/" + other, "web"},
        // The engines' monitors, timers and pods belong to the host.
        {"/machine.slice/libpod-conmon-" + id + ".scope", ""},
        {podSlice, ""},
        {"/libpod_parent/" + other + "/libpod-" + id, id},
        {"/libpod_parent/" + id, id},  // an engine may be told to use that parent
        {"/lxc.monitor.web", ""},
        // Nearly an id.
        {"/docker/" + id.substr(1), ""},
        {"/docker/0" + id, ""},
        {"/docker/3F4A" + id.substr(4), ""},
        // Names that would not survive being put into a request to the engine.
        {"/lxc/a b\r\nX: y", ""},
        {"/lxc.payload.../etc", ""},
        {"/lxc/" + std::string(300, 'a'), ""},
    };
    for (const auto& [path, expected] : rows) {
        EXPECT_EQ(CgroupPath::ContainerId(path), expected) << path;
    }
}

TEST(CgroupPathTest, ReadsTheFirstHierarchyThatNamesAContainer)
{
    const std::string groups = "12:pids:/\n5:cpu,cpuacct:/docker/" + id + " (deleted)\n1:name=systemd:/docker/" + other;
    EXPECT_EQ(CgroupPath::ContainerIdOfFile(groups), id);
    EXPECT_EQ(CgroupPath::ContainerIdOfFile("0::/a:b:c/system.slice:docker:" + id), id);
    EXPECT_EQ(CgroupPath::ContainerIdOfFile("\n\n:\n::\n0:\n1:" + id), "") << "controllers, not a path";
}

}  // namespace
