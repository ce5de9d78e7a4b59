// SPDX-License-Identifier: Apache-2.0
#include "messages/FtraceMessages.h"

#include <gmock/gmock.h>

#include <cstring>
#include <string>

#include "host/ftrace/EventKind.h"

namespace Engine {
namespace {

using Shape = EventKind::Shape;

// What the field "f" of a record with that content reads as.
struct Read {
    Read(const std::string& record, std::uint32_t offset, std::uint32_t size, bool isSigned, Shape shape)
    {
        const EventKind kind{"system", "event", {{"f", offset, size, isSigned, shape}}};
        const FtraceMessage event{kind, reinterpret_cast<const std::byte*>(record.data()), record.size(), {}};
        number = event.get_number("f");
        text = event.get_string("f");
    }
    std::int64_t number;
    std::string text;
};

TEST(FtraceMessageTest, ReadsNumbersOfEachSizeAndSignAndZeroOutsideTheRecord)
{
    const auto number = [](std::uint32_t offset, std::uint32_t size, bool isSigned) {
        return Read{std::string(8, '\xfe'), offset, size, isSigned, Shape::Number}.number;
    };
    EXPECT_EQ(number(0, 1, true), -2);
    EXPECT_EQ(number(1, 2, false), 0xfefe);
    EXPECT_EQ(number(4, 4, true), static_cast<std::int32_t>(0xfefefefeU));
    EXPECT_EQ(number(4, 4, false), 0xfefefefeLL);
    EXPECT_EQ(number(0, 8, false), static_cast<std::int64_t>(0xfefefefefefefefeULL));
    EXPECT_EQ(number(5, 4, false), 0);
    EXPECT_EQ(number(0xffffffff, 8, false), 0);
}

TEST(FtraceMessageTest, ReadsTextsAndNothingOutsideTheRecord)
{
    const std::string record{"bash\0xxxsixteen", 15};
    EXPECT_EQ((Read{record, 0, 8, false, Shape::FixedText}.text), "bash");
    EXPECT_EQ((Read{record, 8, 7, false, Shape::FixedText}.text), "sixteen");
    EXPECT_EQ((Read{record, 8, 8, false, Shape::FixedText}.text), "");

    const auto located = [](std::uint32_t offset, std::uint32_t length, Shape shape) {
        std::string text{"????text\0", 9};
        const std::uint32_t location = offset | length << 16;
        std::memcpy(text.data(), &location, sizeof location);
        return Read{text, 0, 4, false, shape}.text;
    };
    EXPECT_EQ(located(4, 5, Shape::DataLoc), "text");
    EXPECT_EQ(located(0, 5, Shape::RelativeLoc), "text");
    EXPECT_EQ(located(4, 6, Shape::DataLoc), "");
    EXPECT_EQ(located(0xffff, 0xffff, Shape::DataLoc), "");
    EXPECT_EQ(located(1, 5, Shape::RelativeLoc), "");
}

}  // namespace
}  // namespace Engine
