// SPDX-License-Identifier: Apache-2.0
#include "EscapeFileAccessSubmodule.h"

#include "tests/module/detectors/DetectorTest.h"

namespace Engine {
namespace {

using EscapeFileAccessSubmoduleTest = Support::DetectorTest;

TEST_F(EscapeFileAccessSubmoduleTest, WatchesFollowThePolicyAtTheNextInit)
{
    auto& detector = Attach<EscapeFileAccessSubmodule>(*task, collector);
    // "path" of each watch that was placed, "-path" of each that was withdrawn.
    const auto watches = [&] {
        std::set<std::string> paths;
        for (const FileNotifyWatchMessage& watch : Taken(*files, files->watches)) {
            paths.insert((watch.watch ? "" : "-") + watch.path);
        }
        return paths;
    };
    using Paths = std::set<std::string>;
    detector.Reconfigure({{"/etc", "/root*/*rw"}, {}});
    static_cast<Submodule&>(detector).Init();
    EXPECT_EQ(watches(), (Paths{"/etc", "/root*/*rw"}));
    detector.Reconfigure({{"/boot"}, {}});
    detector.DeInit();
    EXPECT_EQ(watches(), (Paths{"-/etc", "-/root*/*rw"}));
    static_cast<Submodule&>(detector).Init();
    EXPECT_EQ(watches(), Paths{"/boot"});
}

}  // namespace
}  // namespace Engine
