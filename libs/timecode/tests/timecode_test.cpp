#include <kestrin/timecode/timecode.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace kestrin::timecode {
namespace {

constexpr auto kNonDrop = FrameCounting::NonDrop;
constexpr auto kDropFrame = FrameCounting::DropFrame;
constexpr auto kThirty = DropFrameBase::Thirty;
constexpr auto kSixty = DropFrameBase::Sixty;

// Characters used below, written as escapes:
//   \u0661\u0662  ARABIC-INDIC DIGIT ONE, TWO   numeric, but no ASCII digits
//   \u00B2        SUPERSCRIPT TWO               numeric
//   \u2460        CIRCLED DIGIT ONE             numeric
//   \u00BD        VULGAR FRACTION ONE HALF      numeric
//   \u0301        COMBINING ACUTE ACCENT        joins the character before it
//   1\uFE0F\u20E3  keycap 1                      one character, numeric (starts with "1")

TEST(TimecodeNumericOnly, KeepsWholeNumericCharactersInOrder)
{
    struct Row
    {
        std::string text;
        std::string expected;
    };
    const std::vector<Row> rows = {
        {"", ""},
        {"a1:2", "12"},
        {"\r\n1\r\n2", "12"},
        {"x\u0661\u0662y", "\u0661\u0662"},
        {"\u00BD \u2460 \u00B2", "\u00BD\u2460\u00B2"},
        // A combining mark stays with its digit, and goes with a letter.
        {"1\u0301e\u03012", "1\u03012"},
        {"1\uFE0F\u20E3x", "1\uFE0F\u20E3"},
        // Ill-formed UTF-8 is no numeral, and does not swallow the digits around it.
        {"\xFF"
         "1\xC3"
         "2\x80",
         "12"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(numericOnly(row.text), row.expected) << row.text;
    }
}

TEST(TimecodeDisplayString, PadsToEightCharactersAndSeparatesGroups)
{
    struct Row
    {
        std::string digits;
        FrameCounting counting;
        std::string expected;
    };
    const std::vector<Row> rows = {
        {"", kNonDrop, "00:00:00:00"},
        {"1234", kNonDrop, "00:00:12:34"},
        {"01000000", kDropFrame, "01:00:00;00"},
        {"123456789", kNonDrop, "12:34:56:78"},
        {"1a2:3", kNonDrop, "00:00:01:23"},
        {"\u0661\u066234", kNonDrop, "00:00:\u0661\u0662:34"},
        // Two characters, not three code points or four bytes: padded with six "0"s.
        {"1\u03012", kNonDrop, "00:00:00:1\u03012"},
        {"1\uFE0F\u20E32345678", kDropFrame, "1\uFE0F\u20E32:34:56;78"},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(timecodeDisplayString(row.digits, row.counting), row.expected) << row.digits;
    }
}

TEST(TimecodeValidity, ChecksEachGroupAgainstTheRate)
{
    struct Row
    {
        std::string digits;
        FrameCounting counting;
        float nominalFps;
        bool expected;
    };
    const std::vector<Row> rows = {
        {"", kNonDrop, 25.0F, false},
        {"1", kNonDrop, 25.0F, true},
        {"25", kNonDrop, 25.0F, false},
        {"23", kNonDrop, 23.976F, true},
        {"24", kNonDrop, 23.976F, false},
        {"23595929", kNonDrop, 29.97F, true},
        {"24000000", kNonDrop, 29.97F, false},
        {"00600000", kNonDrop, 30.0F, false},
        {"00006000", kNonDrop, 30.0F, false},
        {"00010000", kNonDrop, 29.97F, true},
        {"123456789", kNonDrop, 30.0F, false},
        {"00010000", kDropFrame, 29.97F, false},
        {"00010001", kDropFrame, 29.97F, false},
        {"00010002", kDropFrame, 29.97F, true},
        {"00100000", kDropFrame, 29.97F, true},
        {"00000000", kDropFrame, 29.97F, true},
        {"00000030", kDropFrame, 29.97F, false},
        {"23595929", kDropFrame, 29.97F, true},
        {"00010003", kDropFrame, 59.94F, false},
        {"00010004", kDropFrame, 59.94F, true},
        {"00000060", kDropFrame, 59.94F, false},
        // Unreadable minutes, seconds or frames count as 99; unreadable hours as 0.
        {"00\u0661\u06620000", kNonDrop, 30.0F, false},
        {"0000\u00B2000", kNonDrop, 30.0F, false},
        {"000000\u2460", kNonDrop, 30.0F, false},
        {"\u0661\u0662000000", kNonDrop, 30.0F, true},
        {"\u0661\u0662010002", kDropFrame, 29.97F, true},
        {"1\u03010000000", kNonDrop, 30.0F, true},
        {"0000001\u0301", kNonDrop, 30.0F, false},
        // CR LF is one character (hours "\r\n1", unreadable): eight in all, not nine.
        {"\r\n1234512", kNonDrop, 30.0F, true},
        // A leading combining mark joins the last "0" of the padding: seven characters.
        {"\u0301", kNonDrop, 30.0F, false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(isValidTimecodeDigits(row.digits, row.counting, row.nominalFps), row.expected)
            << row.digits << " at " << row.nominalFps
            << (row.counting == kDropFrame ? " drop-frame" : " non-drop");
    }
}

TEST(TimecodeFrameCount, CountsNonDropAndDropFrame)
{
    struct Row
    {
        std::string digits;
        int fps;
        FrameCounting counting;
        std::optional<std::int64_t> expected;
    };
    const std::vector<Row> rows = {
        {"00010000", 30, kNonDrop, 1800},
        {"24000000", 30, kNonDrop, 2592000},
        {"99595929", 30, kNonDrop, 10799999},
        {"99595929", std::numeric_limits<int>::max(), kNonDrop, 773091965436382},
        {"00000025", 25, kNonDrop, std::nullopt},
        {"00000000", 0, kNonDrop, std::nullopt},
        {"00600000", 30, kNonDrop, std::nullopt},
        {"00006000", 30, kNonDrop, std::nullopt},
        {"123456789", 30, kNonDrop, std::nullopt},
        {"01:00:00:12", 30, kNonDrop, 108012},
        {"00010000", 30, kDropFrame, std::nullopt},
        {"00010001", 30, kDropFrame, std::nullopt},
        {"00010002", 30, kDropFrame, 1800},
        {"00100000", 30, kDropFrame, 17982},
        {"01000000", 30, kDropFrame, 107892},
        {"23595929", 30, kDropFrame, 2589407},
        {"00010003", 60, kDropFrame, std::nullopt},
        {"00010004", 60, kDropFrame, 3600},
        {"01000000", 60, kDropFrame, 215784},
        // An unreadable group counts as 0, except that drop-frame reads the label back as text.
        {"01\u0661\u06620005", 30, kNonDrop, 108005},
        {"01\u0661\u06620005", 30, kDropFrame, std::nullopt},
        {"0000001\u0301", 30, kNonDrop, 0},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(timecodeFrameCount(row.digits, row.fps, row.counting), row.expected)
            << row.digits << " at " << row.fps
            << (row.counting == kDropFrame ? " drop-frame" : " non-drop");
    }
}

TEST(TimecodeParse, ReadsFourSignedIntegers)
{
    struct Row
    {
        std::string text;
        std::optional<TimecodeComponents> expected;
    };
    constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
    constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
    const std::vector<Row> rows = {
        {"01:02:03;04", TimecodeComponents{1, 2, 3, 4}},
        {"01:02:03:04", TimecodeComponents{1, 2, 3, 4}},
        {"::1;;2:3:4:", TimecodeComponents{1, 2, 3, 4}},
        {"+1:+2:+3:+4", TimecodeComponents{1, 2, 3, 4}},
        {"-1:00:00:00", TimecodeComponents{-1, 0, 0, 0}},
        {"00000000000000000000001:0:0:0", TimecodeComponents{1, 0, 0, 0}},
        {"9223372036854775807:0:0:0", TimecodeComponents{kMax, 0, 0, 0}},
        {"-9223372036854775808:0:0:0", TimecodeComponents{kMin, 0, 0, 0}},
        {"9223372036854775808:0:0:0", std::nullopt},
        {"01:02:03", std::nullopt},
        {"01:02:03:04:05", std::nullopt},
        {"1 :2:3:4", std::nullopt},
        {"+:1:2:3", std::nullopt},
        {"a:b:c:d", std::nullopt},
        {"\u0661:00:00:00", std::nullopt},
        {"1\u0301:00:00:00", std::nullopt},
        {"00:-1:00:00", std::nullopt},
        {"00:60:00:00", std::nullopt},
        {"00:00:60:00", std::nullopt},
        {"00:00:00:-1", std::nullopt},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(parseTimecode(row.text, kThirty), row.expected) << row.text;
    }
}

TEST(TimecodeParse, RefusesFrameNumbersThatDropFrameSkips)
{
    struct Row
    {
        std::string text;
        DropFrameBase base;
        bool exists;
    };
    const std::vector<Row> rows = {
        {"00:00:00;29", kThirty, true},
        {"00:00:00;30", kThirty, false},
        {"00:00:00;30", kSixty, true},
        {"00:00:00;60", kSixty, false},
        {"00:01:00;01", kThirty, false},
        {"00:01:00;02", kThirty, true},
        {"00:01:00;03", kSixty, false},
        {"00:01:00;04", kSixty, true},
        {"00:01:01;00", kThirty, true},
        {"00:10:00;00", kThirty, true},
        {"00:10:00;00", kSixty, true},
        {"05:59:00;01", kThirty, false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(parseTimecode(row.text, row.base).has_value(), row.exists)
            << row.text << (row.base == kSixty ? " over sixty" : " over thirty");
    }
}

TEST(TimecodeDropFrameCount, CountsFromMidnightWithoutTheSkippedNumbers)
{
    struct Row
    {
        std::string text;
        DropFrameBase base;
        std::optional<std::int64_t> expected;
    };
    const std::vector<Row> rows = {
        // The worked table beside the count.
        {"00:01:00;02", kThirty, 1800},
        {"00:10:00;00", kThirty, 17982},
        {"01:00:00;00", kThirty, 107892},
        {"00:01:00;04", kSixty, 3600},
        {"01:00:00;00", kSixty, 215784},
        // The last frame of a day, one short of 24 hours' worth.
        {"23:59:59;29", kThirty, 24 * 107892 - 1},
        {"23:59:59;59", kSixty, 24 * 215784 - 1},
        {"00:09:59;29", kThirty, 17981},
        {"00:01:00;00", kThirty, std::nullopt},
        {"-1:00:00;00", kThirty, 0},
        {"9223372036854775807:00:00;00", kThirty, std::nullopt},
        {"-9223372036854775808:00:00;00", kSixty, std::nullopt},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(dropFrameCount(row.text, row.base), row.expected)
            << row.text << (row.base == kSixty ? " over sixty" : " over thirty");
    }
}

TEST(TimecodeFrameBase, NamesStandardRatesAndRoundsOthers)
{
    struct Row
    {
        float nominalFps;
        int expected;
    };
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    constexpr int kLargest = std::numeric_limits<int>::max();
    const std::vector<Row> rows = {
        {23.976F, 24},      {24.0F, 24},           {25.0F, 25},
        {29.97F, 30},       {30.0F, 30},           {50.0F, 50},
        {59.94F, 60},       {60.0F, 60},           {2.5F, 3},
        {24.5F, 25},        {120.0F, 120},         {0.4F, 1},
        {0.0F, 1},          {-30.0F, 1},           {std::numeric_limits<float>::quiet_NaN(), 1},
        {-kInfinity, 1},    {kInfinity, kLargest}, {std::numeric_limits<float>::max(), kLargest},
        {3.0e9F, kLargest},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(formatterFrameBase(row.nominalFps), row.expected) << row.nominalFps;
    }
}

}  // namespace
}  // namespace kestrin::timecode
