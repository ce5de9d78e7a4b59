// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeFeaturePolicy.h"
#include "RecordingSubmodule.h"
#include "tests/support/DetectTaskFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

class FileNotifyTest : public Support::DetectTaskFixture {
protected:
    void SetUp() override
    {
        DetectTaskFixture::SetUp();
        collector->Put({"c1", "web", "sha256:1", "plain", {}, {}});
        collector->Put({"c2", "proxy", "sha256:2", "hub/nginx:1", {}, {}});
    }
    void Whitelist(const std::string& image)
    {
        policy.Parse(R"({"content": {"image_white_namelist": [")" + image + R"("]}})");
        task->SetPolicies(&policy, nullptr);
        task->RefreshPolicy(true);
    }
    Support::RecordingSubmodule& AttachRecorder(const std::string& name)
    {
        return Attach<Support::RecordingSubmodule>(*task, name, collector, journal);
    }
    int Notify(int pid, const std::string& path)
    {
        Engine::FileNotifyMessage message(3, path, 2);
        message.SetProcess(static_cast<unsigned int>(pid), "x");
        return task->FileNotifyMessageAction(&message);
    }
    std::vector<std::string> Cached() const
    {
        std::vector<std::string> cached;
        for (const auto& entry : task->CachedNotifications()) {
            cached.push_back(std::to_string(entry.pid) + entry.filePath);
        }
        return cached;
    }

    Engine::ContainerEscapeFeaturePolicy policy;
    Support::RecordingSubmodule::Journal journal;
};

TEST_F(FileNotifyTest, AKnownProcessIsReportedToAllAndTheLastResultCounts)
{
    AttachRecorder("a").fileResult = 4;
    AttachRecorder("b").fileResult = 6;
    Know(7, "c1");
    EXPECT_EQ(Notify(7, "/etc/passwd"), 6);
    EXPECT_THAT(journal, ElementsAre("a file 7/etc/passwd", "b file 7/etc/passwd"));
    EXPECT_THAT(Cached(), IsEmpty());
}

TEST_F(FileNotifyTest, WhitelistedAndUnidentifiableContainersAreNotReported)
{
    AttachRecorder("a");
    Whitelist("nginx");
    Know(7, "c2");
    Know(8, "gone");
    EXPECT_EQ(Notify(7, "/x"), -1);
    EXPECT_EQ(Notify(8, "/x"), -1);
    EXPECT_THAT(journal, IsEmpty());
    EXPECT_THAT(logs.With("Get image name for [pid = {8} : cid = {gone}] failed"), SizeIs(1));
    EXPECT_THAT(task->Procs(), SizeIs(2));
}

TEST_F(FileNotifyTest, FourNotificationsOfUnknownProcessesAreKept)
{
    for (int pid = 1; pid <= 5; ++pid) {
        EXPECT_EQ(Notify(pid, "/x"), -1);
    }
    EXPECT_THAT(Cached(), ElementsAre("2/x", "3/x", "4/x", "5/x"));
}

TEST_F(FileNotifyTest, WhatHasBecomeKnownIsReplayedBeforeTheNextIsKept)
{
    AttachRecorder("a");
    for (const int pid : {1, 2, 3, 2}) {
        Notify(pid, "/f");
    }
    Know(2, "c1");
    EXPECT_THAT(journal, IsEmpty()) << "only a notification triggers the replay";
    EXPECT_EQ(Notify(9, "/g"), -1);
    EXPECT_THAT(journal, ElementsAre("a file 2/f", "a file 2/f"));
    EXPECT_THAT(Cached(), ElementsAre("1/f", "3/f", "9/g"));
}

TEST_F(FileNotifyTest, ImagesAreComparedWithoutRegistryAndThenWithoutTag)
{
    struct Row {
        const char* whitelist;
        const char* image;
        bool whitelisted;
    };
    constexpr Row rows[] = {
        {"nginx", "hub/library/nginx:latest", true},
        {"nginx", "nginx:latest", false},
        {"nginx", "nginx", true},
        {"nginx", "Nginx", false},
        {"nginx:latest", "nginx:latest", true},
        {"nginx:latest", "library/nginx:latest", false},
        {"nginx", "host:5000/nginx:1:2", true},
        {"", "", false},
        {"", "ends/", true},
    };
    for (const Row& row : rows) {
        Whitelist(row.whitelist);
        EXPECT_EQ(task->IsWhitelisted(row.image), row.whitelisted) << row.whitelist << " against " << row.image;
    }
}

}  // namespace
