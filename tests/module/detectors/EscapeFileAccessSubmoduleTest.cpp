// SPDX-License-Identifier: Apache-2.0
#include "EscapeFileAccessSubmodule.h"

#include "tests/module/detectors/DetectorTest.h"

namespace Engine {
namespace {

using testing::IsEmpty;
using testing::UnorderedElementsAre;

class EscapeFileAccessSubmoduleTest : public Support::DetectorTest {
protected:
    // "path" of each watch that was placed, "-path" of each that was withdrawn.
    std::vector<std::string> FileWatches()
    {
        std::vector<std::string> watches;
        for (const FileNotifyWatchMessage& watch : Taken(*files, files->watches)) {
            watches.push_back((watch.watch ? "" : "-") + watch.path);
        }
        return watches;
    }
};

TEST_F(EscapeFileAccessSubmoduleTest, EveryNotificationIsAnAlarm)
{
    auto& detector = Attach<EscapeFileAccessSubmodule>(*task, collector);
    FileNotifyMessage access(1, "/etc/shadow", 2);
    access.SetProcess(shell, "cat");
    EXPECT_EQ(detector.HandleFileNotifyMsg(&access), -1);

    const std::vector<Json::Value> alarms = Alarms();
    ASSERT_EQ(alarms.size(), 1U);
    Support::ExpectClass(alarms[0], {"containerescape_0004", "Container file escape attack", 4, 2, 2000, 2044, 80});
    EXPECT_EQ(alarms[0]["process_info"][0]["process_pid"], shell);
    ASSERT_EQ(alarms[0]["file_info"].size(), 1U);
    EXPECT_EQ(alarms[0]["file_info"][0]["file_path"], "/etc/shadow");
    EXPECT_FALSE(alarms[0].isMember("forensic_info"));

    EXPECT_EQ(detector.HandleFileNotifyMsg(&access), -1);
    EXPECT_THAT(AlarmedPids(), IsEmpty()) << "merged by the task's filter";
}

TEST_F(EscapeFileAccessSubmoduleTest, WatchesFollowThePolicyAtTheNextInit)
{
    auto& detector = Attach<EscapeFileAccessSubmodule>(*task, collector);
    auto& submodule = static_cast<Submodule&>(detector);
    submodule.Init();
    EXPECT_THAT(FileWatches(), IsEmpty());

    detector.Reconfigure({{"/etc", "/root*/*rw"}, {}});
    submodule.Init();
    EXPECT_THAT(FileWatches(), UnorderedElementsAre("/etc", "/root*/*rw"));
    detector.Reconfigure({{"/boot"}, {}});
    detector.DeInit();
    EXPECT_THAT(FileWatches(), UnorderedElementsAre("-/etc", "-/root*/*rw"));
    submodule.Init();
    EXPECT_THAT(FileWatches(), UnorderedElementsAre("/boot"));
    EXPECT_THAT(TraceWatches(), IsEmpty());
}

}  // namespace
}  // namespace Engine
