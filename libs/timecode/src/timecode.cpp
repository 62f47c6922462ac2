#include "characters.hpp"

#include <kestrin/timecode/timecode.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

namespace kestrin::timecode {
namespace {

using detail::CharacterIterator;

// Reads a decimal integer the way the rules read one: an optional "+" or "-", then one or more
// ASCII digits and nothing else, the value within 64 bits. False, and `result` untouched, when
// the text is no such integer.
bool readInteger(std::string_view text, std::int64_t& result)
{
    const bool isNegative = !text.empty() && text.front() == '-';
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        text.remove_prefix(1);
    }
    if (text.empty()) {
        return false;
    }
    std::int64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return false;
        }
        const std::int64_t digit = c - '0';
        // Negative values gather below zero so that the most negative value reads too.
        const bool overflows = __builtin_mul_overflow(value, 10, &value)
                               || (isNegative ? __builtin_sub_overflow(value, digit, &value)
                                              : __builtin_add_overflow(value, digit, &value));
        if (overflows) {
            return false;
        }
    }
    result = value;
    return true;
}

// A digit string with "0"s added on the left until it holds eight characters, cut into the groups
// HH, MM, SS and FF. Characters are counted up to nine, enough to tell "more than eight".
class PaddedDigits
{
public:
    explicit PaddedDigits(std::string_view digits)
    {
        if (startsWithPlainAscii(digits)) {
            // Every byte is a character, and so is every "0" added.
            text_ = digits;
            if (digits.size() < kTimecodeDigitCount) {
                storage_.assign(kTimecodeDigitCount - digits.size(), '0');
                storage_.append(digits);
                text_ = storage_;
            }
            count_ = std::min(text_.size(), kTimecodeDigitCount + 1);
            for (std::size_t index = 0; index < groups_.size(); ++index) {
                groups_[index] = std::string_view(text_.data() + 2 * index, 2);
            }
            return;
        }
        countCharacters(digits);
        if (count_ < kTimecodeDigitCount) {
            storage_.assign(kTimecodeDigitCount - count_, '0');
            storage_.append(digits);
            // Counted afresh: a leading combining mark joins the last "0" added before it.
            countCharacters(storage_);
        }
        const std::size_t available = std::min(count_, kTimecodeDigitCount);
        for (std::size_t index = 0; index < groups_.size(); ++index) {
            const std::size_t first = ends_[std::min(2 * index, available)];
            const std::size_t last = ends_[std::min(2 * index + 2, available)];
            groups_[index] = text_.substr(first, last - first);
        }
    }
    ~PaddedDigits() = default;
    PaddedDigits(const PaddedDigits&) = delete;
    PaddedDigits& operator=(const PaddedDigits&) = delete;
    PaddedDigits(PaddedDigits&&) = delete;
    PaddedDigits& operator=(PaddedDigits&&) = delete;

    [[nodiscard]] bool hasEightCharacters() const { return count_ == kTimecodeDigitCount; }

    struct Numbers
    {
        TimecodeComponents values;
        bool isReadable = true;  // whether all four groups read
    };

    /// The groups read as integers, each that does not read taken as `unreadableHours` (group 0)
    /// or `unreadable` (the others).
    [[nodiscard]] Numbers numbers(std::int64_t unreadableHours, std::int64_t unreadable) const
    {
        Numbers numbers{{unreadableHours, unreadable, unreadable, unreadable}};
        const std::array<std::int64_t*, 4> fields = {&numbers.values.hours,
                                                     &numbers.values.minutes,
                                                     &numbers.values.seconds,
                                                     &numbers.values.frames};
        for (std::size_t index = 0; index < groups_.size(); ++index) {
            if (!readInteger(groups_[index], *fields[index])) {
                numbers.isReadable = false;
            }
        }
        return numbers;
    }

    /// HH:MM:SS:FF, or HH:MM:SS;FF under drop-frame.
    [[nodiscard]] std::string timecodeText(FrameCounting counting) const
    {
        std::string text;
        text.reserve(text_.size() + 3);
        text.append(groups_[0]).append(":").append(groups_[1]).append(":").append(groups_[2]);
        text.append(counting == FrameCounting::DropFrame ? ";" : ":").append(groups_[3]);
        return text;
    }

private:
    void countCharacters(std::string_view text)
    {
        text_ = text;
        count_ = 0;
        CharacterIterator characters(text);
        while (count_ <= kTimecodeDigitCount) {
            const auto character = characters.next();
            if (!character) {
                break;
            }
            ++count_;
            if (count_ <= kTimecodeDigitCount) {
                ends_[count_] = character->end;
            }
        }
    }

    // Whether each of the first nine bytes is a character. An ASCII character runs past its byte
    // only as CR LF or when a non-ASCII byte (a combining mark, say) follows it; so it is enough
    // that the first ten bytes are ASCII and none is a CR.
    static bool startsWithPlainAscii(std::string_view text)
    {
        const std::size_t checked = std::min(text.size(), kTimecodeDigitCount + 2);
        for (std::size_t i = 0; i < checked; ++i) {
            const auto byte = static_cast<unsigned char>(text[i]);
            if (byte >= 0x80 || byte == '\r') {
                return false;
            }
        }
        return true;
    }

    std::string storage_;  // the padded text when "0"s were added
    std::string_view text_;
    std::size_t count_ = 0;                                    // characters in text_, up to nine
    std::array<std::size_t, kTimecodeDigitCount + 1> ends_{};  // ends_[k]: where character k ends
    // Group 0 (hours) to 3 (frames): characters 2 × index + 1 and 2 × index + 2, as far as the
    // text reaches; characters past the eighth belong to no group.
    std::array<std::string_view, 4> groups_;
};

constexpr std::int64_t nominalFramesPerSecond(DropFrameBase base)
{
    return base == DropFrameBase::Sixty ? 60 : 30;
}

constexpr std::int64_t droppedPerMinute(DropFrameBase base)
{
    return base == DropFrameBase::Sixty ? 4 : 2;
}

// The labels that drop-frame numbering skips: frames 00 and 01 (00 to 03 over sixty) at second 0
// of every minute that is not a multiple of ten.
bool isSkippedLabel(std::int64_t minutes,
                    std::int64_t seconds,
                    std::int64_t frames,
                    DropFrameBase base)
{
    return seconds == 0 && minutes % 10 != 0 && frames < droppedPerMinute(base);
}

bool existsInDropFrame(const TimecodeComponents& c, DropFrameBase base)
{
    return c.minutes >= 0 && c.minutes <= 59 && c.seconds >= 0 && c.seconds <= 59 && c.frames >= 0
           && c.frames < nominalFramesPerSecond(base)
           && !isSkippedLabel(c.minutes, c.seconds, c.frames, base);
}

// The drop-frame count of a label that exists (see existsInDropFrame). Every label is counted
// as if no frame number were skipped, then the skipped ones are taken off: two (four over sixty)
// for each minute from the first to the label's own, counted from midnight, that is not a
// multiple of ten. Over thirty a ten-minute block holds
// 1800 + 9 × 1798 = 17982 frames and an hour 6 × 17982 = 107892.
//
//   label        base    total minutes  skipped            count
//   00:01:00;02  thirty   1             2 × (1 − 0)   = 2   1 × 60 × 30 + 2 − 2 = 1800
//   00:10:00;00  thirty  10             2 × (10 − 1)  = 18  10 × 60 × 30 − 18  = 17982
//   01:00:00;00  thirty  60             2 × (60 − 6)  = 108 3600 × 30 − 108    = 107892
//   00:01:00;04  sixty    1             4 × (1 − 0)   = 4   1 × 60 × 60 + 4 − 4 = 3600
//   01:00:00;00  sixty   60             4 × (60 − 6)  = 216 3600 × 60 − 216    = 215784
//
// Hours are unlimited, so each step is checked against 64-bit overflow (absent); a count below
// zero (negative hours) gives 0.
std::optional<std::int64_t> dropFrameCountOf(const TimecodeComponents& c, DropFrameBase base)
{
    std::int64_t totalMinutes = 0;
    std::int64_t skipped = 0;
    std::int64_t count = 0;
    const bool overflows = __builtin_mul_overflow(c.hours, 60, &totalMinutes)
                           || __builtin_add_overflow(totalMinutes, c.minutes, &totalMinutes)
                           || __builtin_mul_overflow(
                               droppedPerMinute(base), totalMinutes - totalMinutes / 10, &skipped)
                           || __builtin_mul_overflow(totalMinutes, 60, &count)
                           || __builtin_add_overflow(count, c.seconds, &count)
                           || __builtin_mul_overflow(count, nominalFramesPerSecond(base), &count)
                           || __builtin_add_overflow(count, c.frames, &count)
                           || __builtin_sub_overflow(count, skipped, &count);
    if (overflows) {
        return std::nullopt;
    }
    return std::max<std::int64_t>(count, 0);
}

}  // namespace

std::string numericOnly(std::string_view text)
{
    bool isAscii = true;
    bool isAllDigits = true;
    for (const char c : text) {
        isAscii = isAscii && static_cast<unsigned char>(c) < 0x80;
        isAllDigits = isAllDigits && c >= '0' && c <= '9';
    }
    if (isAllDigits) {
        return std::string(text);
    }
    std::string numeric;
    if (isAscii) {
        // In ASCII every byte is a character of its own (CR LF aside, which is no numeral) and
        // only the ten digits are numeric.
        for (const char c : text) {
            if (c >= '0' && c <= '9') {
                numeric.push_back(c);
            }
        }
        return numeric;
    }
    detail::CharacterIterator characters(text);
    while (const auto character = characters.next()) {
        if (detail::isNumericCodePoint(character->firstCodePoint)) {
            numeric.append(text.substr(character->begin, character->end - character->begin));
        }
    }
    return numeric;
}

std::string timecodeDisplayString(std::string_view digits, FrameCounting counting)
{
    const std::string numeric = numericOnly(digits);
    const PaddedDigits padded(numeric);
    return padded.timecodeText(counting);
}

bool isValidTimecodeDigits(std::string_view digits, FrameCounting counting, core::FrameRate rate)
{
    if (digits.empty()) {
        return false;
    }
    const PaddedDigits padded(digits);
    if (!padded.hasEightCharacters()) {
        return false;
    }
    // An unreadable minutes, seconds or frames group counts as 99, which every check below
    // refuses; unreadable hours count as 0 and pass.
    const TimecodeComponents c = padded.numbers(0, 99).values;
    if (c.hours > 23 || c.minutes > 59 || c.seconds > 59) {
        return false;
    }
    // A rate not above 0 has no frames, so no timecode exists there (and a frames group such as
    // "-1" would otherwise pass).
    const int frameBase = rate.timecodeBase();
    if (frameBase < 1 || c.frames >= frameBase) {
        return false;
    }
    if (counting == FrameCounting::NonDrop) {
        return true;
    }
    // Exactly what reading the label back as text ("%02d:%02d:%02d;%02d") would decide: the
    // ranges again (a group such as "-1" passes the checks above) and the skipped labels.
    return existsInDropFrame(c, frameBase == 60 ? DropFrameBase::Sixty : DropFrameBase::Thirty);
}

std::optional<std::int64_t> timecodeFrameCount(std::string_view digits,
                                               int fps,
                                               FrameCounting counting)
{
    const std::string numeric = numericOnly(digits);
    const PaddedDigits padded(numeric);
    if (!padded.hasEightCharacters()) {
        return std::nullopt;
    }
    // After numericOnly a group that reads is two ASCII digits, so every number lies in 0–99 and
    // even with the largest int for fps the count stays far inside 64 bits.
    const auto [c, isReadable] = padded.numbers(0, 0);
    if (c.minutes < 0 || c.minutes > 59 || c.seconds < 0 || c.seconds > 59 || c.frames < 0) {
        return std::nullopt;
    }
    if (c.frames >= fps) {
        return std::nullopt;
    }
    if (counting == FrameCounting::NonDrop) {
        return ((c.hours * 60 + c.minutes) * 60 + c.seconds) * fps + c.frames;
    }
    // The drop-frame count is that of the timecode text, whose groups are read afresh and exactly
    // as above, except that one that does not read (another script's numeral) makes it absent.
    const DropFrameBase base = fps > 59 ? DropFrameBase::Sixty : DropFrameBase::Thirty;
    if (!isReadable || !existsInDropFrame(c, base)) {
        return std::nullopt;
    }
    return dropFrameCountOf(c, base);
}

std::optional<TimecodeComponents> parseTimecode(std::string_view text, DropFrameBase base)
{
    std::array<std::string_view, 4> pieces;
    std::size_t pieceCount = 0;
    std::size_t start = 0;
    for (std::size_t index = 0; index <= text.size(); ++index) {
        if (index < text.size() && text[index] != ':' && text[index] != ';') {
            continue;
        }
        if (index > start) {
            if (pieceCount == pieces.size()) {
                return std::nullopt;
            }
            pieces[pieceCount++] = text.substr(start, index - start);
        }
        start = index + 1;
    }
    if (pieceCount != pieces.size()) {
        return std::nullopt;
    }

    TimecodeComponents components;
    const bool isReadable =
        readInteger(pieces[0], components.hours) && readInteger(pieces[1], components.minutes)
        && readInteger(pieces[2], components.seconds) && readInteger(pieces[3], components.frames);
    if (!isReadable || !existsInDropFrame(components, base)) {
        return std::nullopt;
    }
    return components;
}

std::optional<std::int64_t> dropFrameCount(std::string_view text, DropFrameBase base)
{
    const auto c = parseTimecode(text, base);
    if (!c) {
        return std::nullopt;
    }
    return dropFrameCountOf(*c, base);
}

std::optional<std::string> timecodeTextForFrame(std::int64_t frame, int fps, FrameCounting counting)
{
    if (frame < 0 || fps < 1) {
        return std::nullopt;
    }
    std::int64_t perSecond = fps;
    std::int64_t label = frame;  // the frame's position had no label been skipped
    if (counting == FrameCounting::DropFrame) {
        const DropFrameBase base = fps > 59 ? DropFrameBase::Sixty : DropFrameBase::Thirty;
        perSecond = nominalFramesPerSecond(base);
        // Each ten-minute block holds one full minute and nine minutes short by `dropped`
        // (17982 frames over thirty). Within a block, every minute after the first adds the
        // dropped numbers back; the first `dropped` frames of the block belong to its full minute.
        //
        //   frame    blocks  within   label
        //    1799      0      1799    1799 + 2 × ((1799 − 2) / 1798) = 1799   00:00:59;29
        //    1800      0      1800    1800 + 2 × ((1800 − 2) / 1798) = 1802   00:01:00;02
        //   17982      1         0    17982 + 18 × 1                 = 18000  00:10:00;00
        const std::int64_t dropped = droppedPerMinute(base);
        const std::int64_t perBlock = 600 * perSecond - 9 * dropped;
        const std::int64_t perShortMinute = 60 * perSecond - dropped;
        // Hours wrap after 23, so only the frame's place in its day (144 blocks) matters; taking
        // it first keeps the label within 64 bits for frames near the largest value.
        const std::int64_t frameOfDay = frame % (144 * perBlock);
        const std::int64_t blocks = frameOfDay / perBlock;
        const std::int64_t within = frameOfDay % perBlock;
        label = frameOfDay + 9 * dropped * blocks;
        if (within >= dropped) {
            label += dropped * ((within - dropped) / perShortMinute);
        }
    }
    const std::int64_t totalSeconds = label / perSecond;
    std::string text(11, '0');
    const auto put = [&text](std::size_t at, std::int64_t value) {
        text[at] = static_cast<char>('0' + value / 10);
        text[at + 1] = static_cast<char>('0' + value % 10);
    };
    put(0, totalSeconds / 3600 % 24);
    text[2] = ':';
    put(3, totalSeconds / 60 % 60);
    text[5] = ':';
    put(6, totalSeconds % 60);
    text[8] = counting == FrameCounting::DropFrame ? ';' : ':';
    // Frame bases above 99 would need a third digit; no supported rate comes near.
    put(9, label % perSecond % 100);
    return text;
}

}  // namespace kestrin::timecode
