#pragma once

#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string_view>

namespace kestrin::timecode::detail {

/// One user-perceived character: the bytes [begin, end) of the text and its first code point.
struct Character
{
    std::size_t begin = 0;
    std::size_t end = 0;
    char32_t firstCodePoint = 0;
};

/// Whether a code point has a Unicode numeric type (decimal digit, digit or numeric).
[[nodiscard]] bool isNumericCodePoint(char32_t codePoint);

/// Walks the user-perceived characters (extended grapheme clusters) of a UTF-8 text, first to
/// last. Plain ASCII is split without ICU; ICU's character break iterator takes over at the first
/// character that holds or is followed by a non-ASCII byte. Ill-formed UTF-8 reads as U+FFFD.
///
/// The text must outlive the iterator. Not copyable or movable; one thread at a time.
class CharacterIterator
{
public:
    /// ICU reports break positions as 32-bit integers, so it is given longer texts in pieces.
    static constexpr std::size_t kMaxPieceBytes =
        static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max());

    /// `maxPieceBytes` (at least 1) bounds each piece handed to ICU; tests make it small.
    explicit CharacterIterator(std::string_view text, std::size_t maxPieceBytes = kMaxPieceBytes);
    ~CharacterIterator();
    CharacterIterator(const CharacterIterator&) = delete;
    CharacterIterator& operator=(const CharacterIterator&) = delete;
    CharacterIterator(CharacterIterator&&) = delete;
    CharacterIterator& operator=(CharacterIterator&&) = delete;

    /// The next character, or absent after the last one (and on every later call).
    [[nodiscard]] std::optional<Character> next();

private:
    struct Icu;

    [[nodiscard]] std::optional<Character> nextFromIcu();
    [[nodiscard]] std::size_t pieceEnd(std::size_t start) const;

    std::string_view text_;
    std::size_t maxPieceBytes_;
    std::size_t position_ = 0;
    std::unique_ptr<Icu> icu_;  // made at the first non-ASCII byte
};

}  // namespace kestrin::timecode::detail
