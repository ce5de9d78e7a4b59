// SPDX-License-Identifier: Apache-2.0
// What is made of the kernel's format files and of the records that they describe.
#include <gmock/gmock.h>

#include <string>
#include <tuple>
#include <utility>

#include "host/ftrace/EventCatalog.h"
#include "messages/FtraceMessages.h"
#include "tests/support/PageBuilder.h"

namespace Engine {
namespace {

constexpr char fields[] = R"text(
format:
	field:unsigned short common_type;	offset:0;	size:2;	signed:0;
	field:int common_pid;	offset:4;	size:4;	signed:1;

	field:signed char tiny;	offset:8;	size:1;	signed:1;
	field:unsigned short small;	offset:10;	size:2;	signed:0;
	field:unsigned int medium;	offset:12;	size:4;	signed:0;
	field:unsigned long args[6];	offset:12;	size:48;	signed:0;
	field:u64 large;	offset:16;	size:8;	signed:0;
	field:char fixed[8];	offset:24;	size:8;	signed:0;
	field:__data_loc char[] located;	offset:32;	size:4;	signed:0;
	field:__rel_loc char[] relative;	offset:36;	size:4;	signed:0;

print fmt: "what(%s)", unknown_function(REC->it)
)text";

class KernelTextsTest : public testing::Test {
protected:
    // The texts begin at 40; there the two locations point. `size`: of the 49 bytes that the record should have.
    FtraceMessage Message(std::uint32_t offset, std::uint32_t length, std::size_t size = 49)
    {
        record.assign(49, std::byte{0xfe});
        Support::Put(record, 0, std::uint16_t{300});
        std::memcpy(record.data() + 24, "bash\0xxx", 8);
        std::memcpy(record.data() + 40, "text\0more", 9);
        Support::Put(record, 32, offset | length << 16);
        Support::Put(record, 36, (offset - 40) | length << 16);
        return {event->kind, record.data(), size, {}};
    }

    int nextId = 300;
    EventCatalog catalog{[this](const std::string&, const std::string& name) {
        return "name: " + name + "\nID: " + (name == "broken" ? "x" : std::to_string(nextId++)) + fields;
    }};
    const KnownEvent* event = catalog.Find("sched", "fields");
    Support::Bytes record;
};

TEST_F(KernelTextsTest, FieldsAreReadAsTheFormatFileDescribesThemAndNothingOutsideOfTheRecord)
{
    using Number = std::pair<const char*, std::int64_t>;
    for (const auto& [field, value] : {Number{"common_type", 300},
                                       {"common_pid", -0x01010102},
                                       {"tiny", -2},
                                       {"small", 0xfefe},
                                       {"medium", 0xfefefefe},
                                       {"large", -0x0101010101010102},
                                       {"args", 0},
                                       {"fixed", 0},
                                       {"absent", 0}}) {
        EXPECT_EQ(Message(40, 5).get_number(field), value) << field;
    }
    EXPECT_EQ(Message(40, 5).get_string("fixed"), "bash");
    EXPECT_EQ(Message(40, 5).get_string("large"), "");
    for (const auto& [offset, length, text] :
         {std::tuple{40U, 5U, "text"}, {45U, 4U, "more"}, {40U, 10U, ""}, {50U, 1U, ""}, {0xffffU, 0xffffU, ""}}) {
        EXPECT_EQ(Message(offset, length).get_string("located"), text) << offset;
        EXPECT_EQ(Message(offset, length).get_string("relative"), text) << offset;
    }
    EXPECT_EQ(Message(40, 5, 23).get_number("large"), 0) << "the record was cut";
    EXPECT_EQ(Message(40, 5, 23).get_string("fixed"), "");
    EXPECT_EQ(Message(40, 5, 35).get_string("located"), "");
}

TEST_F(KernelTextsTest, EventsAreFoundUnderPlainNamesOnly)
{
    for (const char* name : {"broken", "", "a,b", "../a", "a*", "a\n", "1a"}) {
        EXPECT_EQ(catalog.Find("sched", name), nullptr) << name;
    }
}

}  // namespace
}  // namespace Engine
