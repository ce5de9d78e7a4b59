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
const std::string podUid = "1f2e3d4c-5b6a-7980-a1b2-c3d4e5f60718";
const std::string podUnit = "1f2e3d4c_5b6a_7980_a1b2_c3d4e5f60718";

TEST(CgroupPathTest, FindsTheContainerInEveryEnginesForm)
{
    const std::vector<std::string> paths{
        "/docker/" + id,
        "/system.slice/docker-" + id + ".scope",
        "/system.slice:docker:" + id,
        "/../../docker/" + id,
        "/docker/" + id + "/init.scope",
        "/default/" + id,
        "/system.slice/nerdctl-" + id + ".scope",
        "/system.slice/containerd.service/kubepods-burstable-pod" + podUnit + ".slice:cri-containerd:" + id,
        "/kubepods/burstable/pod" + podUid + "/" + id,
        "/kubepods/besteffort/pod" + podUid + "/" + id + "/child",
        "/kubepods/pod" + podUid + "/crio-" + id,
        "/kubepods.slice/kubepods-burstable.slice/kubepods-burstable-pod" + podUnit + ".slice/cri-containerd-" + id +
            ".scope",
        "/kubepods.slice/kubepods-pod" + podUnit + ".slice/docker-" + id + ".scope",
        "/kubepods.slice/kubepods-besteffort.slice/kubepods-besteffort-pod" + podUnit + ".slice/crio-" + id +
            ".scope/container",
        "/machine.slice/libpod-" + id + ".scope",
        "/machine.slice/libpod-" + id + ".scope/container",
        "/machine.slice/machine-libpod_pod_" + other + ".slice/libpod-" + id + ".scope/container",
        "/libpod_parent/libpod-" + id,
        "/libpod_parent/" + other + "/libpod-" + id,
        "/system.slice/web.service/libpod-payload-" + id,
        "/user.slice/user-1000.slice/user@1000.service/user.slice/libpod-" + id + ".scope/container",
        "/" + id,
        id,
    };
    for (const std::string& path : paths) {
        EXPECT_EQ(CgroupPath::ContainerId(path), id) << path;
    }
}

TEST(CgroupPathTest, FindsContainersThatGoByAName)
{
    const std::vector<std::pair<std::string, std::string>> rows{
        {"/lxc/web-1", "web-1"},
        {"/lxc.payload/web/init.scope", "web"},
        {"/lxc.payload.web.example/system.slice/ssh.service", "web.example"},
        {"/docker/buildkit/k1h8qsx2w0g3v5b7n9m1c4z6p", "k1h8qsx2w0g3v5b7n9m1c4z6p"},
        {"/system.slice/buildkit-k1h8qsx2w0g3v5b7n9m1c4z6p.scope", "k1h8qsx2w0g3v5b7n9m1c4z6p"},
    };
    for (const auto& [path, name] : rows) {
        EXPECT_EQ(CgroupPath::ContainerId(path), name) << path;
    }
}

TEST(CgroupPathTest, TakesNothingElseForAContainer)
{
    const std::vector<std::string> paths{
        "",
        "/",
        "//..//.",
        "/init.scope",
        "/system.slice/run-r0123456789abcdef0123456789abcdef.scope",
        "/kubepods.slice/kubepods-burstable.slice/kubepods-burstable-pod" + podUnit + ".slice",
        // The engines' monitors, timers and pods.
        "/machine.slice/libpod-conmon-" + id + ".scope",
        "/system.slice/crio-conmon-" + id + ".scope",
        "/libpod_parent/" + id,
        "/system.slice/" + id + ".service",
        "/machine.slice/machine-libpod_pod_" + id + ".slice",
        "/lxc.monitor.web",
        "/lxc",
        "/lxc.payload.",
        // A virtual machine's process belongs to the host.
        "/machine.slice/machine-qemu\\x2d1\\x2dweb.scope",
        // Nearly an id.
        "/docker/" + id.substr(1),
        "/docker/0" + id,
        "/docker/x" + id,
        "/docker/" + id.substr(1) + "G",
        "/docker/3F4A" + id.substr(4),
        "/docker/" + id + ".scopes",
        "/docker/buildkit/short",
        "/default/web",
        // Names that would not survive being put into a request to the engine.
        "/lxc/a b\r\nX: y",
        "/lxc.payload.../etc",
        "/lxc/" + std::string(300, 'a'),
        std::string(100000, '/'),
        std::string(100000, 'a'),
        std::string("/doc\0ker/\xff\xfe", 12),
    };
    for (const std::string& path : paths) {
        EXPECT_EQ(CgroupPath::ContainerId(path), "") << path.substr(0, 200);
    }
}

TEST(CgroupPathTest, AContainerCannotPassForAnotherByGroupsBelowItsOwn)
{
    EXPECT_EQ(CgroupPath::ContainerId("/docker/" + id + "/docker/" + other), id);
    EXPECT_EQ(CgroupPath::ContainerId("/system.slice/docker-" + id + ".scope/crio-" + other + ".scope"), id);
    EXPECT_EQ(CgroupPath::ContainerId("/lxc.payload.web/docker/" + other), "web");
    EXPECT_EQ(CgroupPath::ContainerId("/libpod_parent/libpod-" + id + "/libpod_parent/libpod-" + other), id);
}

TEST(CgroupPathTest, ReadsTheFirstHierarchyThatNamesAContainer)
{
    const std::vector<std::pair<std::string, std::string>> rows{
        {"0::/system.slice/docker-" + id + ".scope\n", id},
        {"12:pids:/\n5:cpu,cpuacct:/docker/" + id + "\n1:name=systemd:/docker/" + other + "\n0::/\n", id},
        {"0::/a:b:c/system.slice:docker:" + id, id},
        {"0::/system.slice/docker-" + id + ".scope (deleted)\n", id},
        {"9:name=systemd:/\n0::/\n", ""},
        {"", ""},
        {"\n\n:\n::\n0:\n", ""},
        {id + "\n", ""},         // no path at all
        {"1:" + id + "\n", ""},  // controllers, not a path
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(CgroupPath::ContainerIdOfFile(text), expected) << text;
    }
}

}  // namespace
