// SPDX-License-Identifier: Apache-2.0
// What is made of the kernel's format files, of the records that they describe, and of its statistics.
#include <gmock/gmock.h>

#include <map>
#include <string>

#include "host/ftrace/EventCatalog.h"
#include "host/ftrace/RawPipe.h"
#include "messages/FtraceMessages.h"
#include "tests/support/PageBuilder.h"

namespace Engine {
namespace {

std::string Format(const std::string& event, int id, const std::string& fields)
{
    return "name: " + event + "\nID: " + std::to_string(id) +
           "\nformat:\n"
           "\tfield:unsigned short common_type;\toffset:0;\tsize:2;\tsigned:0;\n"
           "\tfield:int common_pid;\toffset:4;\tsize:4;\tsigned:1;\n\n" +
           fields + "\nprint fmt: \"what(%s)\", unknown_function(REC->it)\n";
}

class KernelTextsTest : public testing::Test {
protected:
    // The record's texts begin at 40.
    static Support::Bytes Record(std::uint32_t located, std::uint32_t relative)
    {
        Support::Bytes record(49, std::byte{0xfe});
        Support::Put(record, 0, std::uint16_t{300});
        std::memcpy(record.data() + 24, "bash\0xxx", 8);
        std::memcpy(record.data() + 40, "text\0more", 9);
        Support::Put(record, 32, located);
        Support::Put(record, 36, relative);
        return record;
    }
    static std::uint32_t Location(std::uint32_t offset, std::uint32_t length) { return offset | length << 16; }

    std::map<std::string, std::string> files{
        {"sched:fields", Format("fields", 300,
                                "\tfield:signed char tiny;\toffset:8;\tsize:1;\tsigned:1;\n"
                                "\tfield:unsigned short small;\toffset:10;\tsize:2;\tsigned:0;\n"
                                "\tfield:unsigned int medium;\toffset:12;\tsize:4;\tsigned:0;\n"
                                "\tfield:unsigned long args[6];\toffset:12;\tsize:48;\tsigned:0;\n"
                                "\tfield:u64 large;\toffset:16;\tsize:8;\tsigned:0;\n"
                                "\tfield:char fixed[8];\toffset:24;\tsize:8;\tsigned:0;\n"
                                "\tfield:__data_loc char[] located;\toffset:32;\tsize:4;\tsigned:0;\n"
                                "\tfield:__rel_loc char[] relative;\toffset:36;\tsize:4;\tsigned:0;\n")},
        {"sched:broken", "name: broken\nID: x\nformat:\n\tfield:"},
        {"syscalls:sys_enter_umount", Format("sys_enter_umount", 304, "")},
        {"other:sys_enter_umount", Format("sys_enter_umount", 305, "")},
    };
    EventCatalog catalog{[this](const std::string& system, const std::string& event) -> std::optional<std::string> {
        const auto found = files.find(system + ":" + event);
        return found != files.end() ? std::optional{found->second} : std::nullopt;
    }};
};

TEST_F(KernelTextsTest, FieldsOfARecordAreReadAsItsFormatFileDescribesThem)
{
    const KnownEvent* event = catalog.Find("sched", "fields");
    ASSERT_NE(event, nullptr);
    EXPECT_EQ(event->id, 300);
    const Support::Bytes record = Record(Location(40, 5), Location(5, 4));
    const FtraceMessage message{event->kind, record.data(), record.size(), {}};
    const std::pair<const char*, std::int64_t> numbers[] = {{"common_type", 300},
                                                            {"common_pid", static_cast<std::int32_t>(0xfefefefeU)},
                                                            {"tiny", -2},
                                                            {"small", 0xfefe},
                                                            {"medium", 0xfefefefeLL},
                                                            {"large", static_cast<std::int64_t>(0xfefefefefefefefeULL)},
                                                            {"args", 0},
                                                            {"fixed", 0},
                                                            {"absent", 0}};
    for (const auto& [field, value] : numbers) {
        EXPECT_EQ(message.get_number(field), value) << field;
    }
    EXPECT_EQ(message.get_string("fixed"), "bash");
    EXPECT_EQ(message.get_string("located"), "text");
    EXPECT_EQ(message.get_string("relative"), "more");
    EXPECT_EQ(message.get_string("large"), "");
}

TEST_F(KernelTextsTest, NothingOutsideTheRecordIsRead)
{
    const EventKind& kind = catalog.Find("sched", "fields")->kind;
    for (const auto& [offset, length] : {std::pair{40U, 10U}, {50U, 1U}, {0xffffU, 0xffffU}}) {
        const Support::Bytes record = Record(Location(offset, length), Location(offset - 36, length));
        const FtraceMessage message{kind, record.data(), record.size(), {}};
        EXPECT_EQ(message.get_string("located"), "");
        EXPECT_EQ(message.get_string("relative"), "");
    }
    const Support::Bytes record = Record(Location(0, 4), 0);
    const FtraceMessage cut{kind, record.data(), 23, {}};
    EXPECT_EQ(cut.get_number("large"), 0);
    EXPECT_EQ(cut.get_string("fixed"), "");
    EXPECT_EQ(cut.get_string("located"), "");
}

TEST_F(KernelTextsTest, EventsAreFoundUnderPlainNamesAndOtherNamesOfTheirCall)
{
    EXPECT_EQ(catalog.Find("sched", "broken"), nullptr);
    for (const char* name : {"", "a,b", "../a", "a*", "a\n", "1a"}) {
        files["sched:" + std::string{name}] = Format(name, 400, "");
        EXPECT_EQ(catalog.Find("sched", name), nullptr) << name;
    }
    const KnownEvent* asked = catalog.Find("syscalls", "sys_enter_umount2");
    ASSERT_NE(asked, nullptr);
    EXPECT_EQ(asked->kernelEvent, "sys_enter_umount");
    EXPECT_EQ(asked->kind.Name(), "syscalls:sys_enter_umount2");
    EXPECT_EQ(catalog.Find("syscalls", "sys_enter_umount")->kind.Name(), "syscalls:sys_enter_umount");
    EXPECT_EQ(catalog.Find("other", "sys_enter_umount2"), nullptr) << "only system calls have other names";
}

TEST_F(KernelTextsTest, CountsOfAStatsFile)
{
    const KernelLoss loss = KernelLoss::Parse("entries: 9\ncommit overrun: 3\noverrun: 12\ndropped events: 40\n");
    EXPECT_EQ(loss.overrun, 12U) << "and not the commit overrun's";
    EXPECT_EQ(loss.dropped, 43U);
}

}  // namespace
}  // namespace Engine
