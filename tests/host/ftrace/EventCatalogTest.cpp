// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/EventCatalog.h"

#include <gmock/gmock.h>

#include <map>
#include <string>

namespace Engine {
namespace {

const std::string commonFields =
    "\tfield:unsigned short common_type;\toffset:0;\tsize:2;\tsigned:0;\n"
    "\tfield:int common_pid;\toffset:4;\tsize:4;\tsigned:1;\n\n";

std::string Format(const std::string& event, int id, const std::string& fields)
{
    return "name: " + event + "\nID: " + std::to_string(id) + "\nformat:\n" + commonFields + fields +
           "\nprint fmt: \"what(%s)\", nobody_knows(REC->it)\n";
}

class EventCatalogTest : public testing::Test {
protected:
    std::map<std::string, std::string> files{
        {"sched:fields", Format("fields", 300,
                                "\tfield:char fixed[16];\toffset:8;\tsize:16;\tsigned:0;\n"
                                "\tfield:__data_loc char[] located;\toffset:24;\tsize:4;\tsigned:0;\n"
                                "\tfield:unsigned long args[6];\toffset:28;\tsize:48;\tsigned:0;\n"
                                "\tfield:u64 last;\toffset:76;\tsize:8;\tsigned:0;\n")},
        {"sched:broken", "name: broken\nID: x\nformat:\n\tfield:"},
        {"syscalls:sys_enter_umount", Format("sys_enter_umount", 304, "")},
        {"other:sys_enter_umount", Format("sys_enter_umount", 305, "")},
    };
    EventCatalog catalog{[this](const std::string& system, const std::string& event) -> std::optional<std::string> {
        const auto found = files.find(system + ":" + event);
        return found != files.end() ? std::optional{found->second} : std::nullopt;
    }};
};

TEST_F(EventCatalogTest, KnowsTextsInEitherFormAndLeavesOutArraysOfNumbers)
{
    const KnownEvent* event = catalog.Find("sched", "fields");
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->id, 300);
    EXPECT_EQ(event->kind.Find("fixed")->shape, EventKind::Shape::FixedText);
    EXPECT_EQ(event->kind.Find("located")->shape, EventKind::Shape::DataLoc);
    EXPECT_EQ(event->kind.Find("args"), nullptr);
    EXPECT_EQ(event->kind.Find("last")->offset, 76U);
}

TEST_F(EventCatalogTest, FindsNothingForBadNamesAndUnusableFormats)
{
    EXPECT_EQ(catalog.Find("sched", "broken"), nullptr);
    for (const char* name : {"", "a,b", "../a", "a*", "a\n"}) {
        files["sched:" + std::string{name}] = Format(name, 400, "");
        EXPECT_EQ(catalog.Find("sched", name), nullptr) << name;
    }
}

TEST_F(EventCatalogTest, KnowsTheKernelsOwnNamesOfSystemCalls)
{
    const KnownEvent* asked = catalog.Find("syscalls", "sys_enter_umount2");
    ASSERT_NE(asked, nullptr);
    EXPECT_EQ(asked->kernelEvent, "sys_enter_umount");
    EXPECT_EQ(asked->kind.Name(), "syscalls:sys_enter_umount2");
    EXPECT_EQ(catalog.Find("syscalls", "sys_enter_umount")->kind.Name(), "syscalls:sys_enter_umount");
    EXPECT_EQ(catalog.Find("other", "sys_enter_umount2"), nullptr) << "only system calls have other names";
}

}  // namespace
}  // namespace Engine
