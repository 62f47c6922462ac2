#include <kestrin/ui/timecode_entry.hpp>

#include <gtest/gtest.h>

#include <tuple>

namespace kestrin::ui {
namespace {

using namespace Qt::StringLiterals;

// Characters used below, written as escapes:
//   \u0661\u0662  ARABIC-INDIC DIGIT ONE, TWO   numeric
//   \u0301        COMBINING ACUTE ACCENT        joins the digit before it into one character

TEST(FieldDigits, KeepTheLastEightNumeralsPaddedWithZeros)
{
    const std::tuple<QString, QString> rows[] = {
        {u""_s, u"00000000"_s},
        {u"abc"_s, u"00000000"_s},
        {u"1"_s, u"00000001"_s},
        {u"123456789"_s, u"23456789"_s},
        {u"12:34:56:78 abc 9"_s, u"23456789"_s},
        {u"x\u0661\u0662"_s, u"000000\u0661\u0662"_s},
        // Eight characters, not eight code units: the accented 1 counts once.
        {u"91\u03012345678"_s, u"1\u03012345678"_s},
    };
    for (const auto& [text, digits] : rows) {
        EXPECT_EQ(normalizedDigits(text), digits) << text.toStdString();
    }
}

TEST(FieldDigits, ShowTheLastEightWithTheFrameSeparator)
{
    const std::tuple<QString, bool, QString> rows[] = {
        {u""_s, false, u"00:00:00:00"_s},
        {u""_s, true, u"00:00:00;00"_s},
        {u"1"_s, false, u"00:00:00:01"_s},
        {u"01000000"_s, true, u"01:00:00;00"_s},
        {u"123456789"_s, false, u"23:45:67:89"_s},
    };
    for (const auto& [digits, dropFrame, shown] : rows) {
        EXPECT_EQ(fieldText(digits, dropFrame), shown) << digits.toStdString();
    }
}

TEST(FieldDigits, EditsEnterAtTheRightAndBackspaceTakesTheLast)
{
    const QString kBackspace = u"\b"_s;
    // Digits before, what is typed or pasted (kBackspace for Backspace), digits after.
    const std::tuple<QString, QString, QString> rows[] = {
        {u"00000000"_s, u"1"_s, u"00000001"_s},
        {u"00000001"_s, u"2"_s, u"00000012"_s},
        {u"00000012"_s, u"a"_s, u"00000012"_s},
        {u"12345678"_s, u"9"_s, u"23456789"_s},
        {u"00000000"_s, u"12:34:56:78 abc 9"_s, u"23456789"_s},
        {u"00000012"_s, kBackspace, u"00000001"_s},
        {u"00000000"_s, kBackspace, u"00000000"_s},
        {u"0000001\u03012"_s, kBackspace, u"00000001\u0301"_s},
        {u"0000001\u03012"_s, u"3"_s, u"000001\u030123"_s},
    };
    for (const auto& [before, edit, after] : rows) {
        const QString result =
            edit == kBackspace ? digitsAfterBackspace(before) : digitsAfterInsert(before, edit);
        EXPECT_EQ(result, after) << before.toStdString() << " + " << edit.toStdString();
    }
}

TEST(FieldDigits, ValidityUsesTheDropFrameFlagAndTheRate)
{
    const std::tuple<QString, bool, core::FrameRate, bool> rows[] = {
        {u"00010000"_s, false, core::kFps2997, true},
        {u"00010000"_s, true, core::kFps2997, false},  // 00:01:00;00 is skipped by drop-frame
        {u"00000029"_s, false, core::kFps2997, true},
        {u"00000029"_s, false, core::kFps25, false},
    };
    for (const auto& [digits, dropFrame, fps, isValid] : rows) {
        EXPECT_EQ(isValidFieldDigits(digits, dropFrame, fps), isValid)
            << digits.toStdString() << " " << dropFrame << " " << fps.framesPerSecond();
    }
}

}  // namespace
}  // namespace kestrin::ui
