#include "characters.hpp"

#include <unicode/ubrk.h>
#include <unicode/uchar.h>
#include <unicode/utext.h>

namespace kestrin::timecode::detail {
namespace {

constexpr char32_t kReplacementCharacter = 0xFFFD;

bool isAscii(unsigned char byte)
{
    return byte < 0x80;
}

// Grapheme_Cluster_Break=Control within ASCII, and CR and LF, which behave alike except together.
bool isAsciiControl(unsigned char byte)
{
    return byte < 0x20 || byte == 0x7F;
}

bool failed(UErrorCode status)
{
    return U_FAILURE(status) != 0;
}

unsigned char byteAt(std::string_view text, std::size_t index)
{
    return static_cast<unsigned char>(text[index]);
}

// True when every text has a character boundary between these two bytes: between two ASCII
// bytes (no ASCII character extends another) except CR LF, and either side of a control, which
// ends and starts a character whatever sits next to it.
bool isCertainBoundary(unsigned char before, unsigned char after)
{
    if (before == '\r' && after == '\n') {
        return false;
    }
    return (isAscii(before) && isAscii(after)) || isAsciiControl(before) || isAsciiControl(after);
}

// A new character break iterator, or null when ICU has no character break rules. Opening one
// reads and builds ICU's rules, some microseconds; cloning a ready one costs a tenth of that. The
// one cloned is never iterated, so it never changes, and ICU lets any thread clone it.
UBreakIterator* newCharacterBreaker()
{
    static const UBreakIterator* const kPrototype = [] {
        UErrorCode status = U_ZERO_ERROR;
        UBreakIterator* prototype = ubrk_open(UBRK_CHARACTER, "", nullptr, 0, &status);
        if (failed(status) && prototype != nullptr) {
            ubrk_close(prototype);
            prototype = nullptr;
        }
        return prototype;
    }();
    if (kPrototype == nullptr) {
        return nullptr;
    }
    UErrorCode status = U_ZERO_ERROR;
    UBreakIterator* breaker = ubrk_clone(kPrototype, &status);
    if (failed(status) && breaker != nullptr) {
        ubrk_close(breaker);
        breaker = nullptr;
    }
    return breaker;
}

}  // namespace

bool isNumericCodePoint(char32_t codePoint)
{
    if (codePoint < 0x80) {
        return codePoint >= U'0' && codePoint <= U'9';
    }
    if (codePoint > 0x10FFFF) {
        return false;
    }
    return u_getIntPropertyValue(static_cast<UChar32>(codePoint), UCHAR_NUMERIC_TYPE) != U_NT_NONE;
}

// ICU state for the part of the text after the first non-ASCII byte. The text is handed over in
// pieces (see pieceEnd); `text` covers the current piece and ICU's indices count from its start.
struct CharacterIterator::Icu
{
    UText text = UTEXT_INITIALIZER;
    // Null when ICU has no character break rules: then every code point is a character.
    UBreakIterator* breaker = nullptr;
    std::size_t pieceStart = 0;
    std::size_t pieceEnd = 0;
    bool hasPiece = false;

    Icu()
        : breaker(newCharacterBreaker())
    {}
    ~Icu()
    {
        if (breaker != nullptr) {
            ubrk_close(breaker);
        }
        utext_close(&text);
    }
    Icu(const Icu&) = delete;
    Icu& operator=(const Icu&) = delete;
    Icu(Icu&&) = delete;
    Icu& operator=(Icu&&) = delete;

    bool openPiece(std::string_view whole, std::size_t start, std::size_t end)
    {
        UErrorCode status = U_ZERO_ERROR;
        utext_openUTF8(
            &text, whole.data() + start, static_cast<std::int64_t>(end - start), &status);
        if (failed(status)) {
            return false;
        }
        if (breaker != nullptr) {
            ubrk_setUText(breaker, &text, &status);
            if (failed(status)) {
                ubrk_close(breaker);
                breaker = nullptr;
            } else {
                ubrk_first(breaker);
            }
        }
        pieceStart = start;
        pieceEnd = end;
        hasPiece = true;
        return true;
    }
};

CharacterIterator::CharacterIterator(std::string_view text, std::size_t maxPieceBytes)
    : text_(text)
    , maxPieceBytes_(maxPieceBytes < 1 ? 1 : maxPieceBytes)
{}

CharacterIterator::~CharacterIterator() = default;

std::optional<Character> CharacterIterator::next()
{
    if (position_ >= text_.size()) {
        return std::nullopt;
    }
    if (icu_ == nullptr) {
        const std::size_t begin = position_;
        const unsigned char first = byteAt(text_, begin);
        if (isAscii(first)) {
            const bool isLast = begin + 1 == text_.size();
            if (!isLast && first == '\r' && byteAt(text_, begin + 1) == '\n') {
                position_ = begin + 2;
                return Character{begin, position_, U'\r'};
            }
            if (isLast || isCertainBoundary(first, byteAt(text_, begin + 1))) {
                position_ = begin + 1;
                return Character{begin, position_, static_cast<char32_t>(first)};
            }
        }
        // A non-ASCII byte here or next (which may be a combining mark on this ASCII character).
        // `position_` is a certain boundary, so ICU can start from it without earlier context.
        icu_ = std::make_unique<Icu>();
    }
    return nextFromIcu();
}

std::optional<Character> CharacterIterator::nextFromIcu()
{
    Icu& icu = *icu_;
    if (!icu.hasPiece && !icu.openPiece(text_, position_, pieceEnd(position_))) {
        // ICU refused the piece, which it does not do for pieces of this size; rather than fail,
        // the rest of the text is one character that is not numeric.
        const Character rest{position_, text_.size(), kReplacementCharacter};
        position_ = text_.size();
        return rest;
    }

    const auto pieceLength = static_cast<std::int64_t>(icu.pieceEnd - icu.pieceStart);
    const auto begin = static_cast<std::int64_t>(position_ - icu.pieceStart);
    std::int64_t end = pieceLength;
    if (icu.breaker != nullptr) {
        const std::int32_t boundary = ubrk_next(icu.breaker);
        if (boundary != UBRK_DONE) {
            end = boundary;
        }
    } else {
        utext_setNativeIndex(&icu.text, begin);
        utext_next32(&icu.text);
        end = utext_getNativeIndex(&icu.text);
    }
    if (end <= begin || end > pieceLength) {
        end = pieceLength;  // never stall, never step outside the piece
    }

    const UChar32 codePoint = utext_char32At(&icu.text, begin);
    const Character character{
        position_,
        icu.pieceStart + static_cast<std::size_t>(end),
        codePoint < 0 ? kReplacementCharacter : static_cast<char32_t>(codePoint),
    };
    position_ = character.end;
    if (position_ == icu.pieceEnd) {
        icu.hasPiece = false;
    }
    return character;
}

// Where the piece of text that starts at `start` ends. A piece may only end where every reading
// of the text has a boundary, else the characters either side of the seam would come out wrong;
// one is looked for in the second half of the longest piece allowed. Only a text with a run of
// that many bytes without two ASCII bytes or an ASCII control in a row has none, and is then cut
// between two code points, which may split a very long character in two.
std::size_t CharacterIterator::pieceEnd(std::size_t start) const
{
    if (text_.size() - start <= maxPieceBytes_) {
        return text_.size();
    }
    const std::size_t limit = start + maxPieceBytes_;
    const std::size_t lowest = start + maxPieceBytes_ / 2 + 1;
    for (std::size_t end = limit; end >= lowest && end > start; --end) {
        if (isCertainBoundary(byteAt(text_, end - 1), byteAt(text_, end))) {
            return end;
        }
    }
    for (std::size_t end = limit; end > start; --end) {
        if ((byteAt(text_, end) & 0xC0U) != 0x80U) {
            return end;
        }
    }
    return limit;
}

}  // namespace kestrin::timecode::detail
