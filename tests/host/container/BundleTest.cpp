// SPDX-License-Identifier: Apache-2.0
// What the files beside a container tell of it: found, read, and believed.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "host/container/OciBundle.h"
#include "tests/host/container/ContainerFixture.h"

namespace {

using Engine::ContainerInfo;

std::string Config(const std::string& annotations)
{
    return R"({"process":{},"root":{},"annotations":{)" + annotations +
           R"(},"mounts":[{"destination":"/proc","type":"proc"},{"destination":"/data","type":"bind"},)"
           R"({"destination":"/etc/hosts","type":"bind"},{"destination":1,"type":"bind"},7]})";
}

const std::string ofContainerd = R"("io.kubernetes.cri.container-name":"web","io.kubernetes.cri.sandbox-name":"shop",
    "io.kubernetes.cri.sandbox-namespace":"prod","io.kubernetes.cri.sandbox-uid":"u-1",
    "io.kubernetes.cri.image-name":"docker.io/library/nginx:1")";
const std::string ofCrio = R"("io.kubernetes.container.name":"web","io.kubernetes.pod.name":"shop",
    "io.kubernetes.pod.namespace":"prod","io.kubernetes.pod.uid":"u-1",
    "io.kubernetes.cri-o.ImageName":"docker.io/library/nginx:1","io.kubernetes.cri-o.ImageRef":")" +
                           idB + '"';

std::string Told(const std::optional<ContainerInfo>& info)
{
    return info ? info->name + ' ' + info->imageName + ' ' + info->pod.nameSpace + '/' + info->pod.name + ' ' +
                      info->pod.uid
                : "nothing";
}

TEST(OciBundleTest, AnnotationsOfEachEngineGiveNamesAndHostileOnesNone)
{
    using namespace Engine::OciBundle;
    for (const std::string& annotations : {ofContainerd, ofCrio}) {
        const auto info = ParseConfig(idA, Config(annotations));
        EXPECT_EQ(Told(info), "web nginx:1 prod/shop u-1");
        EXPECT_THAT(info->mountDestinations, testing::ElementsAre("/data"));
    }
    EXPECT_EQ(ParseConfig(idA, Config(ofCrio))->imageId, "sha256:" + idB);
    EXPECT_EQ(Told(ParseConfig(idA, Config(R"("io.kubernetes.pod.name":"shop","io.kubernetes.pod.uid":{})"))),
              "shop  /shop ");
    EXPECT_EQ(FamiliarImageName("docker.io/a/b:1"), "a/b:1");
    EXPECT_EQ(FamiliarImageName("docker.io/quay.io/b"), "docker.io/quay.io/b") << "or it would be quay.io's";
    EXPECT_EQ(FamiliarImageName("quay.io/docker.io/library/b"), "quay.io/docker.io/library/b");
    for (const std::string& text : {std::string{}, std::string{"[]"}, std::string{"{}"}, std::string(100'000, '['),
                                    std::string{R"({"process":1,"root":{}})"}}) {
        EXPECT_EQ(Told(ParseConfig(idA, text)), "nothing");
        EXPECT_EQ(Told(ParseStored(idA, text)), "nothing");
    }
    for (const char* odd : {"1", "[1]", R"({"a":1})"}) {
        EXPECT_EQ(ParseConfig(
                      idA, R"({"process":{},"root":{},"annotations":)" + std::string(odd) + ",\"mounts\":" + odd + "}")
                      ->name,
                  "");
        EXPECT_EQ(
            Told(ParseStored(idA, R"([1,{"id":")" + idA + R"(","names":)" + odd + R"(,"metadata":)" + odd + "}]")),
            "  / ");
    }
}

class BundleTest : public ContainerFixture {
protected:
    // What is known once all that is wanted has been read.
    std::string Read(const std::string& id, int pid)
    {
        bundles.Want(id, pid, false);
        EXPECT_TRUE(bundles.IsAwaited(id));
        bundles.ReadWanted();
        EXPECT_TRUE(bundles.IsAwaited(id)) << "the engines may know more";
        bundles.AskNext();
        EXPECT_FALSE(bundles.IsAwaited(id));
        const auto found = cache.Find(id);
        return found == nullptr ? "nothing" : Told(*found);
    }
    Support::FakeSystem::Process& RunMaker(int pid, const std::string& line, const std::string& place)
    {
        auto& process = Run(pid, "");
        process.name = line;
        process.executable = line.substr(0, line.find(' '));
        process.place = place;
        return process;
    }

    const std::string root = bundleRoot.Path();
};

// The one of a pod's containers by its pod's shim, and what Podman keeps beside the bundles.
TEST_F(BundleTest, IsFoundBelowAnEnginesRootOrByTheProcessesThatMadeTheContainer)
{
    bundleRoot.Write("k8s.io/" + idA + "/config.json", Config(ofContainerd));
    EXPECT_EQ(Read(idA, 1), "web nginx:1 prod/shop u-1");
    const std::string state = root + "/else/tasks/";
    bundleRoot.Write("else/tasks/" + idB + "/config.json", Config(ofCrio));
    RunMaker(10, "/usr/bin/containerd-shim-runc-v2 -id pod", state + "pod");
    Run(11, idB, 10);
    EXPECT_EQ(Read(idB, 11), "web nginx:1 prod/shop u-1");

    const std::string store = root + "/else/vfs-containers/";
    const std::string idC(64, 'c');
    bundleRoot.Write("else/vfs-containers/" + idC + "/userdata/config.json", Config(""));
    bundleRoot.Write("else/vfs-containers/containers.json", R"([{"id":")" + idB + R"("}])");
    bundleRoot.Write("else/vfs-containers/volatile-containers.json",
                     R"([{"id":")" + idC +
                         R"(","image":"1","names":["n"],)"
                         R"("metadata":"{\"image-name\":\"docker.io/library/nginx:1\",\"name\":\"web\"}"}])");
    RunMaker(20, "/usr/bin/conmon -c " + idC + " -b " + store + idC + "/userdata", "/");
    Run(21, idC, 20);
    EXPECT_EQ(Read(idC, 21), "web nginx:1 / ");
    EXPECT_EQ(cache.ImageNameOf(idC), ::geteuid() == 0 ? "nginx:1" : "");
    RunMaker(30, "/usr/sbin/runc run --bundle " + root + "/by-hand byhand", "/");
    bundleRoot.Write("by-hand/config.json", Config(""));
    EXPECT_EQ(Read("byhand", 31), "nothing") << "there is no such process";
    Run(31, "byhand", 30);
    bundles.Want("byhand", 31, true);
    bundles.ReadWanted();
    EXPECT_EQ(Told(*cache.Find("byhand")), "byhand  / ") << "its runtime gave it no other name";
}

// A container's processes have arguments of their choice, and a user of the host writes bundles of his own.
TEST_F(BundleTest, IsBelievedOnlyWhereThePrivilegedWroteIt)
{
    bundleRoot.Write("else/made/" + idA + "/config.json", Config(ofContainerd));
    Run(9, "outer", 1);
    auto& inner = RunMaker(10, "/bin/runc run --bundle " + root + "/else/made/" + idA + ' ' + idA, "/");
    inner.container = "outer";
    inner.namespaces = {{"mnt", "container's"}};
    Run(11, idA, 10);
    EXPECT_EQ(Read(idA, 11), "nothing") << "a container's own";

    bundleRoot.Write("else/other/config.json", Config(ofContainerd));
    RunMaker(20, "/home/user/conmon -b " + root + "/else/other mine", "/");
    Run(21, "mine", 20);
    EXPECT_EQ(Read("mine", 21), "web nginx:1 prod/shop u-1");
    EXPECT_EQ(cache.FindVouchedFor("mine"), nullptr) << "root wrote it, but about another";

    bundleRoot.Write("k8s.io/" + idB + "/config.json", Config(ofContainerd));
    const std::string file = root + "/k8s.io/" + idB + "/config.json";
    ::chmod(file.c_str(), 0666);
    EXPECT_EQ(Read(idB, 1), "web nginx:1 prod/shop u-1");
    EXPECT_EQ(cache.ImageNameOf(idB), "");
    EXPECT_EQ(cache.FindVouchedFor(idB), nullptr);
    cache.Put({idB, "shop", "", "nginx:2", {}, {}});
    EXPECT_EQ(Told(*cache.Find(idB)), "shop nginx:2 / ") << "the engine's word counts more, and no pod comes with it";
    EXPECT_EQ(cache.ImageNameOf(idB), "nginx:2");

    bundleRoot.Write("k8s.io/both/config.json", Config(ofCrio + R"(,"io.kubernetes.cri.image-name":"nginx")"));
    EXPECT_EQ(Read("both", 1), "web nginx prod/shop u-1");
    EXPECT_EQ(cache.FindVouchedFor("both"), nullptr) << "the author of a pod chooses its annotations";

    bundleRoot.Write("k8s.io/large/config.json", Config(ofContainerd) + std::string(1 << 20, ' '));
    bundleRoot.Write("k8s.io/no-json/config.json", Config(ofContainerd) + "x");
    std::filesystem::create_directories(root + "/k8s.io/link");
    std::filesystem::create_symlink(file, root + "/k8s.io/link/config.json");
    std::filesystem::create_directories(root + "/k8s.io/pipe");
    ::mkfifo((root + "/k8s.io/pipe/config.json").c_str(), 0600);
    for (const char* hostile : {"large", "no-json", "link", "pipe"}) {
        EXPECT_EQ(Read(hostile, 1), "nothing") << hostile;
    }
}

// An engine that makes a container may not tell of it yet, and one that comes later is asked about all.
TEST_F(BundleTest, EnginesAreAskedUntilTheContainerRunsAndAgainWhenOneComes)
{
    bundleRoot.Write("k8s.io/" + idA + "/config.json", Config(ofContainerd));
    bundleRoot.Write("k8s.io/" + idB + "/config.json", Config(ofContainerd));
    isKnown = false;
    EXPECT_EQ(Read(idA, 1), "web nginx:1 prod/shop u-1");
    bundles.Want(idB, 1, true);
    bundles.ReadWanted();
    EXPECT_TRUE(bundles.AskNext()) << "it runs: once more";
    EXPECT_TRUE(!bundles.IsAwaited(idA) && bundles.IsAwaited(idB));
    isKnown = true;
    bundles.Want(idA, 1, true);
    bundles.ReadWanted();
    EXPECT_TRUE(bundles.AskNext());
    EXPECT_FALSE(bundles.AskNext() || bundles.IsAwaited(idA) || bundles.IsAwaited(idB));
    EXPECT_THAT(std::exchange(asked, {}), testing::ElementsAre(idA, idB, idB, idA));
    bundles.AskAgain();
    EXPECT_TRUE(bundles.IsAwaited(idA));
    while (bundles.AskNext()) {
    }
    EXPECT_THAT(std::exchange(asked, {}), testing::UnorderedElementsAre(idA, idB));

    const std::string idC(64, 'c');
    bundles.Want(idC, 40, false);  // its runtime's processes are gone, its own are not born
    bundleRoot.Write("else/" + idC + "/config.json", Config(ofCrio));
    RunMaker(41, "/usr/bin/conmon -c " + idC + " -b " + root + "/else/" + idC, "/");
    Run(42, idC, 41);
    bundles.Want(idC, 42, true);  // before the first has been looked for
    bundles.ReadWanted();
    EXPECT_NE(cache.Find(idC), nullptr);
    bundles.Want(idC, 42, true);
    EXPECT_TRUE(bundles.AskNext() && bundles.IsAwaited(idC));
    EXPECT_FALSE(bundles.AskNext() || bundles.IsAwaited(idC));
}

// Names are there before the container's program runs; when they come late, the receivers are told of it anew.
TEST_F(BundleTest, IsWantedAsSoonAsTheRuntimeMovesAProcessIn)
{
    bundleRoot.Write("k8s.io/" + idA + "/config.json", Config(ofContainerd));
    Register();
    Run(400, "", runtime);
    Fork(runtime, 400);
    Attach(runtime, 400, idA);
    EXPECT_TRUE(bundles.IsAwaited(idA));
    Run(400, idA, runtime);
    Exec(400, "/bin/sh");
    EXPECT_EQ(last.imageName, "");
    bundles.ReadWanted();
    Notices();
    Round();
    EXPECT_THAT(Notices(), testing::ElementsAre("-400", "+400"));
    EXPECT_EQ(last.imageName, ::geteuid() == 0 ? "nginx:1" : "");
    const auto later = Engine::MetadataCache::Clock::now() + 2 * Engine::MetadataCache::keepGone;
    cache.KeepOnly({}, 1, {});
    cache.Purge(later);
    EXPECT_NE(cache.Find(idA), nullptr) << "an engine that does not know it has no say";
    cache.KeepLiving({}, {});
    cache.Purge(later);
    EXPECT_EQ(cache.Find(idA), nullptr) << "the container has gone, and no engine tells";
}

}  // namespace
