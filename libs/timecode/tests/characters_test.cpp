#include "../src/characters.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kestrin::timecode::detail {
namespace {

// The characters of `text`, checked to cover it end to end without gaps.
std::vector<std::string> charactersOf(std::string_view text,
                                      std::size_t maxPieceBytes = CharacterIterator::kMaxPieceBytes)
{
    std::vector<std::string> characters;
    CharacterIterator iterator(text, maxPieceBytes);
    std::size_t expectedBegin = 0;
    while (const auto character = iterator.next()) {
        EXPECT_EQ(character->begin, expectedBegin);
        EXPECT_LT(character->begin, character->end);
        characters.emplace_back(text.substr(character->begin, character->end - character->begin));
        expectedBegin = character->end;
    }
    EXPECT_EQ(expectedBegin, text.size());
    EXPECT_FALSE(iterator.next().has_value());
    return characters;
}

TEST(TimecodeCharacters, SplitsUserPerceivedCharacters)
{
    using Characters = std::vector<std::string>;
    EXPECT_EQ(charactersOf(""), Characters{});
    EXPECT_EQ(charactersOf("a\r\nb\n\r"), (Characters{"a", "\r\n", "b", "\n", "\r"}));
    // Combining marks, a keycap, a flag (two regional indicators), a family joined by ZWJ.
    EXPECT_EQ(charactersOf("1\u0301\u0302x1\uFE0F\u20E3\U0001F1EB\U0001F1F7"
                           "\U0001F468\u200D\U0001F469\u200D\U0001F467"),
              (Characters{"1\u0301\u0302",
                          "x",
                          "1\uFE0F\u20E3",
                          "\U0001F1EB\U0001F1F7",
                          "\U0001F468\u200D\U0001F469\u200D\U0001F467"}));
    // A control ends a character even before a combining mark.
    EXPECT_EQ(charactersOf("\n\u0301"), (Characters{"\n", "\u0301"}));
}

TEST(TimecodeCharacters, ReportsTheFirstCodePoint)
{
    const std::string text = "\u0661\u0301\u00B2x";
    CharacterIterator iterator(text);
    std::vector<char32_t> firsts;
    while (const auto character = iterator.next()) {
        firsts.push_back(character->firstCodePoint);
    }
    EXPECT_EQ(firsts, (std::vector<char32_t>{U'\u0661', U'\u00B2', U'x'}));
}

TEST(TimecodeCharacters, IllFormedUtf8StillAdvances)
{
    const std::string text =
        "\xFF\xC3\x80\x80\xE2\x91"
        "1\xF4\x90\x80\x80\xED\xA0\x80";
    const auto characters = charactersOf(text);
    EXPECT_GE(characters.size(), 5U);
    EXPECT_NE(std::find(characters.begin(), characters.end(), "1"), characters.end());
}

// Long texts reach ICU in pieces; the seams must not change a single character.
TEST(TimecodeCharacters, PiecesSplitNoCharacter)
{
    std::string text = "a\u0301";  // ICU from the first character on
    for (int i = 0; i < 200; ++i) {
        text += "xy1\u0301\u0302z\u0661\r\n\U0001F1EB\U0001F1F7";
    }
    const auto whole = charactersOf(text);
    for (const std::size_t maxPieceBytes : {24U, 31U, 64U}) {
        EXPECT_EQ(charactersOf(text, maxPieceBytes), whole) << maxPieceBytes;
    }
    // Without a safe seam the pieces are still cut between code points and nothing is lost.
    std::string marks = "1";
    for (int i = 0; i < 100; ++i) {
        marks += "\u0301";
    }
    const auto pieces = charactersOf(marks, 16);
    std::string joined;
    for (const auto& piece : pieces) {
        joined += piece;
    }
    EXPECT_EQ(joined, marks);
}

}  // namespace
}  // namespace kestrin::timecode::detail
