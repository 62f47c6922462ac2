// The public functions cover how texts split into characters. What they cannot reach is the cut
// of long texts into pieces for ICU (at 2^31 bytes), so it is tested here with small pieces.

#include "../src/characters.hpp"

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace kestrin::timecode::detail {
namespace {

// The characters of `text`, checked to cover it end to end without gaps.
std::vector<std::string> charactersOf(std::string_view text, std::size_t maxPieceBytes)
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

TEST(TimecodeCharacters, PiecesSplitNoCharacter)
{
    std::string text = "a\u0301";  // ICU from the first character on
    for (int i = 0; i < 200; ++i) {
        text += "xy1\u0301\u0302z\u0661\r\n\U0001F1EB\U0001F1F7";
    }
    const auto whole = charactersOf(text, CharacterIterator::kMaxPieceBytes);
    EXPECT_EQ(whole.size(), 1 + 200 * 7U);
    for (const std::size_t maxPieceBytes : {24U, 31U, 64U}) {
        EXPECT_EQ(charactersOf(text, maxPieceBytes), whole) << maxPieceBytes;
    }
    // Without a safe seam the pieces are still cut between code points, and charactersOf checks
    // that nothing is lost.
    std::string marks = "1";
    for (int i = 0; i < 100; ++i) {
        marks += "\u0301";
    }
    EXPECT_GE(charactersOf(marks, 16).size(), 1U);
}

}  // namespace
}  // namespace kestrin::timecode::detail
