// SPDX-License-Identifier: Apache-2.0
#include "ContainerEscapeFeaturePolicy.h"
#include "RecordingSubmodule.h"
#include "tests/support/DetectTaskFixture.h"

namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class FileNotifyTest : public Support::DetectTaskFixture {
protected:
    void SetUp() override
    {
        DetectTaskFixture::SetUp();
        collector->Put({"c1", "web", "sha256:1", "plain", {}, {}});
        collector->Put({"c2", "proxy", "sha256:2", "hub/nginx:1", {}, {}});
        for (const int result : {4, 6}) {
            Attach<Support::RecordingSubmodule>(*task, std::to_string(result), collector, journal).fileResult = result;
        }
    }
    void Whitelist(const std::string& image)
    {
        policy.Parse(R"({"content": {"image_white_namelist": [")" + image + R"("]}})");
        task->SetPolicies(&policy, nullptr);
        task->RefreshPolicy(true);
    }
    int Notify(int pid)
    {
        Engine::FileNotifyMessage message(3, "/f", 2);
        message.SetProcess(static_cast<unsigned int>(pid), "x");
        return task->FileNotifyMessageAction(&message);
    }
    std::vector<int> Cached() const
    {
        std::vector<int> cached;
        for (const auto& entry : task->CachedNotifications()) {
            cached.push_back(entry.pid);
        }
        return cached;
    }

    Engine::ContainerEscapeFeaturePolicy policy;
    Support::RecordingSubmodule::Journal journal;
};

TEST_F(FileNotifyTest, AKnownProcessIsReportedToAllUnlessItsContainerIsWhitelistedOrHasNoId)
{
    Whitelist("nginx");
    Know(7, "c1");
    Know(8, "c2");
    Know(9, "../no id");
    EXPECT_EQ(Notify(8), -1);
    EXPECT_EQ(Notify(9), -1);
    EXPECT_THAT(journal, IsEmpty());
    EXPECT_EQ(Notify(7), 6) << "the last result counts";
    EXPECT_THAT(journal, ElementsAre("4 file 7/f", "6 file 7/f"));
    EXPECT_THAT(Cached(), IsEmpty());
}

TEST_F(FileNotifyTest, FourOfUnknownProcessesAreKeptAndReplayedBeforeTheNextIsKept)
{
    for (const int pid : {0, 1, 2, 3, 2}) {
        EXPECT_EQ(Notify(pid), -1);
    }
    EXPECT_THAT(Cached(), ElementsAre(1, 2, 3, 2));
    Know(2, "c1");
    EXPECT_THAT(journal, IsEmpty()) << "only a notification triggers the replay";
    EXPECT_EQ(Notify(9), -1);
    EXPECT_THAT(journal, ElementsAre("4 file 2/f", "6 file 2/f", "4 file 2/f", "6 file 2/f"));
    EXPECT_THAT(Cached(), ElementsAre(1, 3, 9));
}

TEST_F(FileNotifyTest, ImagesAreComparedWithoutRegistryAndThenWithoutTag)
{
    struct Row {
        const char* whitelist;
        const char* image;
        bool whitelisted;
    };
    constexpr Row rows[] = {
        {"nginx", "hub/library/nginx:latest", true}, {"nginx", "nginx:latest", false},
        {"nginx:latest", "nginx:latest", true},      {"nginx:latest", "library/nginx:latest", false},
        {"nginx", "host:5000/nginx:1:2", true},      {"", "", false},
    };
    for (const Row& row : rows) {
        Whitelist(row.whitelist);
        EXPECT_EQ(task->IsWhitelisted(row.image), row.whitelisted) << row.whitelist << " against " << row.image;
    }
}

}  // namespace
