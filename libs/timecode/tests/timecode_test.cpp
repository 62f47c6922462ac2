#include <kestrin/timecode/timecode.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace kestrin::timecode {
namespace {

constexpr auto kNonDrop = FrameCounting::NonDrop;
constexpr auto kDropFrame = FrameCounting::DropFrame;
constexpr auto kThirty = DropFrameBase::Thirty;
constexpr auto kSixty = DropFrameBase::Sixty;
// A rate whose timecode base is the largest int.
constexpr core::FrameRate kHugeRate{std::numeric_limits<std::int64_t>::max(), 1};
constexpr std::optional<std::int64_t> kNone;

// Characters used below, written as escapes:
//   \u0661\u0662  ARABIC-INDIC DIGIT ONE, TWO   numeric, but no ASCII digits
//   \u00B2        SUPERSCRIPT TWO               numeric
//   \u2460        CIRCLED DIGIT ONE             numeric
//   \u00BD        VULGAR FRACTION ONE HALF      numeric
//   \u0301        COMBINING ACUTE ACCENT        joins the character before it
//   1\uFE0F\u20E3  keycap 1                      one character, numeric (starts with "1")
//   \U0001F1EB\U0001F1F7  flag of France (two regional indicators), one character, not numeric

TEST(TimecodeNumericOnly, KeepsWholeNumericCharactersInOrder)
{
    const std::pair<std::string, std::string> rows[] = {
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
         "2\x80\xF4\x90\x80\x80\xED\xA0\x80"
         "3",
         "123"},
    };
    for (const auto& [text, expected] : rows) {
        EXPECT_EQ(numericOnly(text), expected) << text;
    }
}

TEST(TimecodeDisplayString, PadsToEightCharactersAndSeparatesGroups)
{
    const std::tuple<std::string, FrameCounting, std::string> rows[] = {
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
    for (const auto& [digits, counting, expected] : rows) {
        EXPECT_EQ(timecodeDisplayString(digits, counting), expected) << digits;
    }
}

// Every label of a day at the usual rates is also checked against libavutil; these rows hold
// the boundaries past it, the rates it leaves out and digit strings that are not plain labels.
TEST(TimecodeDigits, ValidityAndFrameCountAtTheRate)
{
    // Digits, counting, nominal rate (the count uses its frame base), valid, frame count.
    using Row =
        std::tuple<std::string, FrameCounting, core::FrameRate, bool, std::optional<std::int64_t>>;
    const Row rows[] = {
        {"", kNonDrop, core::kFps25, false, 0},
        {"1", kNonDrop, core::kFps25, true, 1},
        {"00000025", kNonDrop, core::kFps25, false, kNone},
        {"24", kNonDrop, core::kFps23976, false, kNone},
        // No timecode exists at a rate without frames, not even with a frames group of "-1".
        {"1", kNonDrop, core::FrameRate{0, 1}, false, kNone},
        {"-1", kNonDrop, core::FrameRate{-25, 1}, false, kNone},
        {"00010000", kNonDrop, core::kFps2997, true, 1800},
        {"24000000", kNonDrop, core::kFps30, false, 2592000},
        {"99595929", kNonDrop, core::kFps30, false, 10799999},
        {"99595929", kNonDrop, kHugeRate, false, 773091965436382},
        {"00600000", kNonDrop, core::kFps30, false, kNone},
        {"00006000", kNonDrop, core::kFps30, false, kNone},
        {"123456789", kNonDrop, core::kFps30, false, kNone},
        {"01:00:00:12", kNonDrop, core::kFps30, false, 108012},
        // Drop-frame skips frames 00 and 01 (00 to 03 at 59.94) except every tenth minute.
        {"00010000", kDropFrame, core::kFps2997, false, kNone},
        {"00010001", kDropFrame, core::kFps2997, false, kNone},
        {"00010002", kDropFrame, core::kFps2997, true, 1800},
        {"00100000", kDropFrame, core::kFps2997, true, 17982},
        {"01000000", kDropFrame, core::kFps2997, true, 107892},
        {"00000030", kDropFrame, core::kFps2997, false, kNone},
        {"00010003", kDropFrame, core::kFps5994, false, kNone},
        {"00010004", kDropFrame, core::kFps5994, true, 3600},
        {"01000000", kDropFrame, core::kFps5994, true, 215784},
        {"00000060", kDropFrame, core::kFps5994, false, kNone},
        // Validity reads an unreadable hours group as 0 and any other as 99; the count reads
        // them as 0, except that drop-frame reads the label back as text.
        {"00\u0661\u06620000", kNonDrop, core::kFps30, false, 0},
        {"0000\u00B2000", kNonDrop, core::kFps30, false, 0},
        {"000000\u2460", kNonDrop, core::kFps30, false, 0},
        {"\u0661\u0662000000", kNonDrop, core::kFps30, true, 0},
        {"\u0661\u0662010002", kDropFrame, core::kFps2997, true, kNone},
        {"01\u0661\u06620005", kNonDrop, core::kFps30, false, 108005},
        {"1\u03010000000", kNonDrop, core::kFps30, true, 0},
        {"0000001\u0301", kNonDrop, core::kFps30, false, 0},
        // Validity counts characters: CR LF and a flag are one each, so hours read "\r\n1" and
        // "<flag>1" (0) and there are eight; a control ends a character before a combining mark,
        // so there are nine; a leading combining mark joins the last "0" of the padding: seven.
        {"\r\n1234512", kNonDrop, core::kFps30, true, 150762},
        {"\U0001F1EB\U0001F1F71234512", kNonDrop, core::kFps30, true, 150762},
        {"\n\u03011234512", kNonDrop, core::kFps30, false, 150762},
        {"\u0301", kNonDrop, core::kFps30, false, 0},
    };
    for (const auto& [digits, counting, rate, valid, count] : rows) {
        SCOPED_TRACE(digits + " at " + std::to_string(rate.framesPerSecond())
                     + (counting == kDropFrame ? " drop-frame" : " non-drop"));
        EXPECT_EQ(isValidTimecodeDigits(digits, counting, rate), valid);
        EXPECT_EQ(timecodeFrameCount(digits, rate.timecodeBase(), counting), count);
    }
    EXPECT_EQ(timecodeFrameCount("00000000", 0, kNonDrop), kNone);
}

TEST(TimecodeParse, ReadsFourSignedIntegersOfALabelThatExists)
{
    constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
    constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
    const std::optional<TimecodeComponents> none;
    const std::tuple<std::string, DropFrameBase, std::optional<TimecodeComponents>> rows[] = {
        {"01:02:03;04", kThirty, TimecodeComponents{1, 2, 3, 4}},
        {"01:02:03:04", kThirty, TimecodeComponents{1, 2, 3, 4}},
        {"::1;;2:3:4:", kThirty, TimecodeComponents{1, 2, 3, 4}},
        {"+1:+2:+3:+4", kThirty, TimecodeComponents{1, 2, 3, 4}},
        {"-1:00:00:00", kThirty, TimecodeComponents{-1, 0, 0, 0}},
        {"00000000000000000000001:0:0:0", kThirty, TimecodeComponents{1, 0, 0, 0}},
        {"9223372036854775807:0:0:0", kThirty, TimecodeComponents{kMax, 0, 0, 0}},
        {"-9223372036854775808:0:0:0", kThirty, TimecodeComponents{kMin, 0, 0, 0}},
        {"9223372036854775808:0:0:0", kThirty, none},
        {"01:02:03", kThirty, none},
        {"01:02:03:04:05", kThirty, none},
        {"1 :2:3:4", kThirty, none},
        {"+:1:2:3", kThirty, none},
        {"\u0661:00:00:00", kThirty, none},
        {"1\u0301:00:00:00", kThirty, none},
        {"00:-1:00:00", kThirty, none},
        {"00:60:00:00", kThirty, none},
        {"00:00:60:00", kThirty, none},
        {"00:00:00:-1", kThirty, none},
        {"00:00:00;29", kThirty, TimecodeComponents{0, 0, 0, 29}},
        {"00:00:00;30", kThirty, none},
        {"00:00:00;59", kSixty, TimecodeComponents{0, 0, 0, 59}},
        {"00:00:00;60", kSixty, none},
        {"00:01:00;01", kThirty, none},
        {"00:01:00;03", kSixty, none},
        {"00:01:00;04", kSixty, TimecodeComponents{0, 1, 0, 4}},
        {"00:01:01;00", kThirty, TimecodeComponents{0, 1, 1, 0}},
        {"00:10:00;00", kSixty, TimecodeComponents{0, 10, 0, 0}},
        {"05:59:00;01", kThirty, none},
    };
    for (const auto& [text, base, expected] : rows) {
        EXPECT_EQ(parseTimecode(text, base), expected)
            << text << (base == kSixty ? " over sixty" : " over thirty");
    }
}

TEST(TimecodeDropFrameCount, CountsFromMidnightWithoutTheSkippedNumbers)
{
    const std::tuple<std::string, DropFrameBase, std::optional<std::int64_t>> rows[] = {
        {"00:01:00;02", kThirty, 1800},
        {"00:10:00;00", kThirty, 17982},
        {"01:00:00;00", kThirty, 107892},
        {"00:01:00;04", kSixty, 3600},
        {"01:00:00;00", kSixty, 215784},
        // The last frame of a day, one short of 24 hours' worth.
        {"23:59:59;29", kThirty, 24 * 107892 - 1},
        {"23:59:59;59", kSixty, 24 * 215784 - 1},
        {"00:09:59;29", kThirty, 17981},
        {"00:01:00;00", kThirty, kNone},
        {"-1:00:00;00", kThirty, 0},
        {"9223372036854775807:00:00;00", kThirty, kNone},
        {"-9223372036854775808:00:00;00", kSixty, kNone},
    };
    for (const auto& [text, base, expected] : rows) {
        EXPECT_EQ(dropFrameCount(text, base), expected)
            << text << (base == kSixty ? " over sixty" : " over thirty");
    }
}

}  // namespace
}  // namespace kestrin::timecode
