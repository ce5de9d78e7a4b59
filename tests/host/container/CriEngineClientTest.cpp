// SPDX-License-Identifier: Apache-2.0
#include "host/container/CriEngineClient.h"

#include <gmock/gmock.h>
#include <grpcpp/grpcpp.h>

#include <thread>

#include "runtime_v1.grpc.pb.h"
#include "tests/support/TemporaryDirectory.h"

// The thread sanitizer does not see the locks of libraries that are built without it.
// NOLINTNEXTLINE(bugprone-reserved-identifier): it asks by this name
extern "C" const char* __tsan_default_suppressions()
{
    return "race:grpc\nrace:libabsl\nrace:libgpr\ncalled_from_lib:libgrpc.so\n";
}

namespace {

namespace Api = ::runtime::v1;
using namespace std::chrono_literals;
using grpc::ServerContext;
using grpc::Status;

const std::string ofPod(64, 'a');
const std::string large(64, '1');
const std::string slow(64, '5');

// An engine with a pod and containers that are too much for it. As a filter, a part of an id will do.
struct FakeRuntime final : Api::RuntimeService::Service {
    Status Version(ServerContext* /*of*/, const Api::VersionRequest* /*request*/, Api::VersionResponse* /*to*/) override
    {
        return isOffered ? Status::OK : Status(grpc::StatusCode::UNIMPLEMENTED, "unknown service");
    }
    Status ListContainers(ServerContext* of, const Api::ListRequest* request, Api::ListContainersResponse* to) override
    {
        const std::string& id = request->filter().id();
        if (id == large) {
            to->add_containers()->set_id(std::string(Engine::Cri::maxReplyBytes, 'x'));
        }
        while (id == slow && !of->IsCancelled()) {
            std::this_thread::sleep_for(1ms);
        }
        return Status::OK;
    }
    Status ListPodSandbox(ServerContext* /*of*/, const Api::ListRequest* /*request*/,
                          Api::ListPodSandboxResponse* to) override
    {
        Api::PodSandbox& pod = *to->add_items();
        pod.set_id(ofPod);
        pod.mutable_metadata()->set_name("cart\xff");
        return Status::OK;
    }

    std::atomic<bool> isOffered{true};
};

class CriEngineClientTest : public testing::Test {
protected:
    // `isKnown`: whether the engine knows of the container, or is not asked.
    std::string Read(const std::string& id, bool isKnown = true)
    {
        EXPECT_EQ(client.Read(id), isKnown);
        const auto info = cache.Find(id);
        return info == nullptr ? "nothing" : info->name;
    }
    void Serve()
    {
        server = grpc::ServerBuilder()
                     .AddListeningPort("unix:" + path, grpc::InsecureServerCredentials())
                     .RegisterService(&runtime)
                     .BuildAndStart();
    }
    void StepAfter(std::chrono::milliseconds pause) { client.Step(now += pause); }

    TemporaryDirectory directory;
    const std::string path = directory / "cri.sock";
    FakeRuntime runtime;
    std::unique_ptr<grpc::Server> server;
    Engine::MetadataCache cache;
    int reached = 0;
    Engine::CriEngineClient client{{"cri", path}, cache, 1, [this] { ++reached; }, 2s};
    Engine::EngineClient::Clock::time_point now = Engine::EngineClient::Clock::now();
};

TEST_F(CriEngineClientTest, WhatIsTooLongOrHangsCostsItsContainerAndIsOver)
{
    StepAfter(0ms);
    EXPECT_EQ(Read(ofPod), "nothing");
    Serve();
    StepAfter(client.firstPause);
    EXPECT_TRUE(client.State().answers && reached == 1);
    EXPECT_EQ(Read(ofPod.substr(1), false), "nothing") << "it is another's";
    EXPECT_EQ(Read(large), "nothing");
    EXPECT_TRUE(client.State().answers) << "about others";
    EXPECT_EQ(Read(slow), "nothing");
    EXPECT_THAT(client.State().problem, testing::HasSubstr("Deadline"));
    StepAfter(client.firstPause);
    EXPECT_TRUE(client.State().answers && reached == 2);
    EXPECT_EQ(Read(ofPod), "cart\xff");
}

TEST_F(CriEngineClientTest, AnEngineWithoutTheInterfaceIsAFaultOnlyWhereItIsAskedFor)
{
    runtime.isOffered = false;
    Serve();
    StepAfter(0ms);
    Engine::CriEngineClient unasked{{"cri", path, false}, cache, 1, [] {
                                    }};
    unasked.Step(now);
    EXPECT_EQ(client.State().problem + unasked.State().problem, "unknown service");
}

// The kubelet names an image by its id.
TEST(CriAnswerTest, AnIdIsNoNameAndADigestNoId)
{
    const std::string id(64, '9');
    Engine::Cri::Answer answer;
    answer.images = {"", "sha256:" + id, "nginx:1", "other"};
    answer.references = {"", "nginx@sha256:0f", id};
    answer.mounts = {"/etc/hosts", "/data"};
    answer.labels = {{"app", "shop"}, {"long", std::string(1 << 20, 'x')}, {"tier", "web"}};
    const Engine::ContainerInfo info = Engine::ToContainerInfo("a", answer);
    EXPECT_EQ(info.imageName + ' ' + info.imageId + ' ' + info.imageDigest, "nginx:1 sha256:" + id + " sha256:0f");
    EXPECT_THAT(info.mountDestinations, testing::ElementsAre("/data"));
    const auto privileged = [&answer](const char* details) {
        answer.details = details;
        const std::optional<bool> is = Engine::ToContainerInfo("a", answer).privileged;
        return is ? *is ? "yes" : "no" : "unknown";
    };
    EXPECT_STREQ(privileged(R"({"config":{"linux":{"security_context":{"privileged":true}}}})"), "yes");
    EXPECT_STREQ(privileged(R"({"config":{"linux":[]}})"), "no");
    EXPECT_STREQ(privileged(R"({"privileged":true})"), "yes") << "as CRI-O says it";
    for (const char* none : {"", "[1", R"({"config":1,"privileged":"true"})"}) {
        EXPECT_STREQ(privileged(none), "unknown") << none;
    }
    EXPECT_THAT(info.labels, testing::ElementsAre(testing::Pair("app", "shop"), testing::Pair("tier", "web")));
}

}  // namespace
