// SPDX-License-Identifier: Apache-2.0
#include "host/ftrace/EventCatalog.h"

#include <gmock/gmock.h>

#include <cstring>
#include <map>
#include <string>

#include "messages/FtraceMessages.h"
#include "tests/host/ftrace/PageBuilder.h"

namespace Engine {
namespace {

const std::string commonFields =
    "\tfield:unsigned short common_type;\toffset:0;\tsize:2;\tsigned:0;\n"
    "\tfield:unsigned char common_flags;\toffset:2;\tsize:1;\tsigned:0;\n"
    "\tfield:unsigned char common_preempt_count;\toffset:3;\tsize:1;\tsigned:0;\n"
    "\tfield:int common_pid;\toffset:4;\tsize:4;\tsigned:1;\n\n";

std::string Format(const std::string& event, int id, const std::string& fields)
{
    return "name: " + event + "\nID: " + std::to_string(id) + "\nformat:\n" + commonFields + fields +
           "\nprint fmt: \"what(%s)\", nobody_knows(REC->it)\n";
}

class EventCatalogTest : public testing::Test {
protected:
    std::map<std::string, std::string> files{
        {"sched:fork_of_old",
         Format("fork_of_old", 300, "\tfield:char parent_comm[16];\toffset:8;\tsize:16;\tsigned:0;\n")},
        {"sched:fork_of_new",
         Format("fork_of_new", 301, "\tfield:__data_loc char[] parent_comm;\toffset:8;\tsize:4;\tsigned:0;\n")},
        {"sched:arrays", Format("arrays", 302,
                                "\tfield:unsigned long args[6];\toffset:8;\tsize:48;\tsigned:0;\n"
                                "\tfield:u64 last;\toffset:56;\tsize:8;\tsigned:0;\n")},
        {"sched:broken", "name: broken\nID: x\nformat:\n\tfield:"},
        {"sched:shifted",
         "name: shifted\nID: 303\nformat:\n\tfield:int pid;\toffset:0;\tsize:4;\tsigned:1;\n\nprint fmt: \"\"\n"},
        {"syscalls:sys_enter_umount", Format("sys_enter_umount", 304, "")},
        {"other:sys_enter_umount", Format("sys_enter_umount", 305, "")},
    };
    EventCatalog catalog{[this](const std::string& system, const std::string& event) -> std::optional<std::string> {
        const auto found = files.find(system + ":" + event);
        return found != files.end() ? std::optional{found->second} : std::nullopt;
    }};
};

TEST_F(EventCatalogTest, FindsATextWhetherItsFieldIsAnArrayOrALocation)
{
    const KnownEvent* old = catalog.Find("sched", "fork_of_old");
    const KnownEvent* fresh = catalog.Find("sched", "fork_of_new");
    ASSERT_TRUE(old != nullptr && fresh != nullptr);
    EXPECT_EQ(old->id, 300);

    Testing::Bytes inArray = Testing::Record(300, 7, Testing::Bytes(16));
    std::memcpy(inArray.data() + 8, "bash", 5);
    Testing::Bytes located = Testing::Record(301, 7, Testing::Bytes(9));
    Testing::Put(located, 8, std::uint32_t{12 | 5 << 16});
    std::memcpy(located.data() + 12, "bash", 5);
    const FtraceMessage first{old->kind, inArray.data(), inArray.size(), std::chrono::nanoseconds{0}};
    const FtraceMessage second{fresh->kind, located.data(), located.size(), std::chrono::nanoseconds{0}};
    EXPECT_EQ(first.get_string("parent_comm"), "bash");
    EXPECT_EQ(second.get_string("parent_comm"), "bash");
    EXPECT_EQ(second.get_number("common_pid"), 7);
}

TEST_F(EventCatalogTest, LeavesOutArraysOfNumbers)
{
    const KnownEvent* event = catalog.Find("sched", "arrays");
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->kind.Find("args"), nullptr);
    EXPECT_NE(event->kind.Find("last"), nullptr);
}

TEST_F(EventCatalogTest, FindsNothingForBadNamesAndUnusableFormats)
{
    EXPECT_EQ(catalog.Find("sched", "absent"), nullptr);
    EXPECT_EQ(catalog.Find("sched", "broken"), nullptr);
    EXPECT_EQ(catalog.Find("sched", "shifted"), nullptr) << "records would not begin with their id";
    for (const char* name : {"", "a,b", "a b", "../a", "a/b", "1a", "a*", "a\n"}) {
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
    EXPECT_EQ(catalog.Find("syscalls", "sys_enter_umount2"), asked) << "one kind for each name";

    const KnownEvent* direct = catalog.Find("syscalls", "sys_enter_umount");
    ASSERT_NE(direct, nullptr);
    EXPECT_EQ(direct->kind.Name(), "syscalls:sys_enter_umount");
    EXPECT_EQ(direct->id, asked->id);
    EXPECT_EQ(catalog.Find("other", "sys_enter_umount2"), nullptr) << "only system calls have other names";
}

}  // namespace
}  // namespace Engine
