// SPDX-License-Identifier: Apache-2.0
#include "messages/FtraceMessages.h"

#include <gmock/gmock.h>

#include <cstring>
#include <string>
#include <vector>

#include "host/ftrace/EventKind.h"

namespace Engine {
namespace {

using Shape = EventKind::Shape;
using std::chrono::nanoseconds;

std::vector<std::byte> Bytes(const std::string& text)
{
    const auto* begin = reinterpret_cast<const std::byte*>(text.data());
    return {begin, begin + text.size()};
}

std::int64_t Number(const std::vector<std::byte>& record, const EventKind::Field& field)
{
    const EventKind kind{"system", "event", {field}};
    return FtraceMessage{kind, record.data(), record.size(), nanoseconds{0}}.get_number(field.name);
}

std::string Text(const std::vector<std::byte>& record, const EventKind::Field& field)
{
    const EventKind kind{"system", "event", {field}};
    return FtraceMessage{kind, record.data(), record.size(), nanoseconds{0}}.get_string(field.name);
}

TEST(FtraceMessageTest, ReadsNumbersOfEachSizeAndSign)
{
    const auto record = Bytes(std::string(8, '\xfe'));
    EXPECT_EQ(Number(record, {"f", 0, 1, true, Shape::Number}), -2);
    EXPECT_EQ(Number(record, {"f", 0, 1, false, Shape::Number}), 0xfe);
    EXPECT_EQ(Number(record, {"f", 1, 2, true, Shape::Number}), static_cast<std::int16_t>(0xfefe));
    EXPECT_EQ(Number(record, {"f", 1, 2, false, Shape::Number}), 0xfefe);
    EXPECT_EQ(Number(record, {"f", 4, 4, true, Shape::Number}), static_cast<std::int32_t>(0xfefefefeU));
    EXPECT_EQ(Number(record, {"f", 4, 4, false, Shape::Number}), 0xfefefefeLL);
    EXPECT_EQ(Number(record, {"f", 0, 8, false, Shape::Number}), static_cast<std::int64_t>(0xfefefefefefefefeULL));
}

TEST(FtraceMessageTest, GivesZeroForWhatIsNoNumberInTheRecord)
{
    const auto record = Bytes("12345678");
    EXPECT_EQ(Number(record, {"reaches past the end", 5, 4, false, Shape::Number}), 0);
    EXPECT_EQ(Number(record, {"far outside", 0xffffffff, 8, false, Shape::Number}), 0);
    EXPECT_EQ(Number(record, {"odd size", 0, 3, false, Shape::Number}), 0);
    EXPECT_EQ(Number(record, {"text", 0, 4, false, Shape::FixedText}), 0);
    const EventKind kind{"system", "event", {}};
    EXPECT_EQ((FtraceMessage{kind, record.data(), record.size(), nanoseconds{0}}.get_number("absent")), 0);
}

TEST(FtraceMessageTest, ReadsFixedTextsWithAndWithoutAnEnd)
{
    const auto record = Bytes(std::string{"bash\0xxxsixteen", 15});
    EXPECT_EQ(Text(record, {"comm", 0, 8, false, Shape::FixedText}), "bash");
    EXPECT_EQ(Text(record, {"comm", 8, 7, false, Shape::FixedText}), "sixteen");
    EXPECT_EQ(Text(record, {"comm", 8, 8, false, Shape::FixedText}), "") << "reaches past the end";
    EXPECT_EQ(Text(record, {"number", 0, 4, false, Shape::Number}), "");
}

// Four bytes that say where the text is, then "text" and its end at offset 4.
std::vector<std::byte> Located(std::uint32_t offset, std::uint32_t length)
{
    std::vector<std::byte> record = Bytes(std::string{"????text\0", 9});
    const std::uint32_t location = offset | length << 16;
    std::memcpy(record.data(), &location, sizeof location);
    return record;
}

TEST(FtraceMessageTest, ReadsLocatedTextsAndNothingOutsideTheRecord)
{
    const EventKind::Field absolute{"f", 0, 4, false, Shape::DataLoc};
    const EventKind::Field relative{"f", 0, 4, false, Shape::RelativeLoc};
    EXPECT_EQ(Text(Located(4, 5), absolute), "text");
    EXPECT_EQ(Text(Located(4, 2), absolute), "te");
    EXPECT_EQ(Text(Located(0, 5), relative), "text");
    EXPECT_EQ(Text(Located(4, 0), absolute), "");
    EXPECT_EQ(Text(Located(4, 6), absolute), "");
    EXPECT_EQ(Text(Located(9, 1), absolute), "");
    EXPECT_EQ(Text(Located(0xffff, 0xffff), absolute), "");
    EXPECT_EQ(Text(Located(1, 5), relative), "");
    EXPECT_EQ(Text(Located(4, 5), {"itself outside", 7, 4, false, Shape::DataLoc}), "");
}

TEST(FtraceMessageTest, KeepsThreeEarlierTextsValid)
{
    const auto record = Bytes("abcd");
    const EventKind kind{"system",
                         "event",
                         {{"a", 0, 1, false, Shape::FixedText},
                          {"b", 1, 1, false, Shape::FixedText},
                          {"c", 2, 1, false, Shape::FixedText},
                          {"d", 3, 1, false, Shape::FixedText}}};
    const FtraceMessage event{kind, record.data(), record.size(), nanoseconds{0}};
    const std::string& a = event.get_string("a");
    const std::string& b = event.get_string("b");
    const std::string& c = event.get_string("c");
    const std::string& d = event.get_string("d");
    EXPECT_EQ(a + b + c + d, "abcd");
    EXPECT_EQ(event.name(), "system:event");
}

}  // namespace
}  // namespace Engine
