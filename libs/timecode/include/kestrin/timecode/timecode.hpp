#pragma once

// Timecode words used here:
//  - digit string: how a timecode is stored while the user types it, normally eight digits read
//    as HHMMSSFF after "0"s are added on the left ("01000000" is one hour).
//  - timecode text: the label shown for it, HH:MM:SS:FF, with ";" before the frames under
//    drop-frame (01:00:00;00).
//  - frame base: whole frames per second of the timecode (24 at 23.976, 30 at 29.97, 60 at 59.94).
//  - drop-frame: counting at 29.97 (59.94) that skips the frame numbers 00 and 01 (00 to 03) at
//    the start of every minute except minutes 00, 10, 20, 30, 40 and 50.
//  - character: a user-perceived character (a Unicode extended grapheme cluster), so a digit with
//    a combining mark is one character. A character is numeric when its first code point has a
//    Unicode numeric type: ASCII digits, other scripts' digits, fractions, circled and superscript
//    digits. Only ASCII digits are read as numbers.
//
// Texts are UTF-8. Every function is pure and thread-safe and accepts any bytes: ill-formed UTF-8
// reads as U+FFFD (not numeric), and no input makes a function trap or overflow; only a failed
// allocation throws.

#include <kestrin/core/frame_rate.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace kestrin::timecode {

/// Digits in a complete digit string: two each for hours, minutes, seconds and frames.
inline constexpr std::size_t kTimecodeDigitCount = 8;

/// How frame numbers are counted at the current rate.
enum class FrameCounting {
    NonDrop,    ///< every frame number exists; the frames are separated by ":"
    DropFrame,  ///< drop-frame numbering; the frames are separated by ";"
};

/// The nominal frames per second that drop-frame numbering is laid over.
enum class DropFrameBase {
    Thirty,  ///< 29.97: frame numbers 00 and 01 are skipped at the minutes that drop
    Sixty,   ///< 59.94: frame numbers 00 to 03 are skipped at the minutes that drop
};

/// The four numbers of a timecode text.
struct TimecodeComponents
{
    std::int64_t hours = 0;
    std::int64_t minutes = 0;
    std::int64_t seconds = 0;
    std::int64_t frames = 0;

    friend bool operator==(const TimecodeComponents&, const TimecodeComponents&) = default;
};

/// `text` with every character that is not numeric removed; the numeric characters keep their
/// order and their bytes (combining marks included). "a1:2" gives "12", "١٢" stays "١٢", an empty
/// or wholly non-numeric text gives "".
[[nodiscard]] std::string numericOnly(std::string_view text);

/// The timecode text for `digits`: the numeric characters of `digits`, with "0"s added on the left
/// until there are eight, shown as HH:MM:SS:FF (HH:MM:SS;FF under drop-frame). Characters beyond
/// the eighth are ignored; any numeral is shown as typed, even one that does not read as a number.
/// "1234" gives "00:00:12:34", "" gives "00:00:00:00", "123456789" gives "12:34:56:78".
[[nodiscard]] std::string timecodeDisplayString(std::string_view digits, FrameCounting counting);

/// Whether `digits` names an existing timecode at `rate`. `digits` is
/// taken as it is: the caller has already removed what is not numeric (see `numericOnly`);
/// otherwise a group such as "+5" or "-1" reads as a number like any other.
///
/// False when `digits` is empty or holds more than eight characters, and at a rate not above 0.
/// After padding to eight, the groups HH, MM, SS, FF are read as decimal integers; an hours group
/// that does not read as one (a non-ASCII numeral, say) counts as 0, any other such group as 99.
/// False when hours exceed 23, minutes or seconds exceed 59, or frames are not below
/// `rate.timecodeBase()`. Under drop-frame also false when the label is one that drop-frame
/// numbering skips (base 60 counts as `DropFrameBase::Sixty`, any other as
/// `DropFrameBase::Thirty`). True otherwise.
[[nodiscard]] bool isValidTimecodeDigits(std::string_view digits,
                                         FrameCounting counting,
                                         core::FrameRate rate);

/// Frames from 00:00:00:00 to the timecode that `digits` names, counting `fps` frames a second
/// (the frame base, 24, 25, 30, 50 or 60 in use).
///
/// The numeric characters of `digits` are padded to eight; absent when there are more than eight.
/// A group that does not read as a number counts as 0. Absent when minutes or seconds exceed 59
/// or frames are not below `fps` (so always absent for `fps` of 0 or below). Hours 00 to 99 all
/// count. Non-drop: ((hours × 60 + minutes) × 60 + seconds) × fps + frames. Drop-frame (over
/// `DropFrameBase::Sixty` when `fps` exceeds 59, else `DropFrameBase::Thirty`): absent for a label
/// that drop-frame numbering skips, otherwise `dropFrameCount` of the timecode text, which is
/// absent when any group holds a numeral other than ASCII digits. Never overflows.
[[nodiscard]] std::optional<std::int64_t> timecodeFrameCount(std::string_view digits,
                                                             int fps,
                                                             FrameCounting counting);

/// The components of a timecode text such as "01:00:00;00".
///
/// ";" counts as ":"; the text is split at the separators and empty pieces are dropped, so
/// "::1:2:3:4" also reads. Absent unless there are exactly four pieces, each an optional "+" or
/// "-" followed by ASCII digits whose value fits 64 bits. Absent when minutes or seconds lie
/// outside 0–59, when frames lie outside 0–29 (`DropFrameBase::Thirty`) or 0–59
/// (`DropFrameBase::Sixty`), or when the label is one that drop-frame numbering skips (seconds 0,
/// minutes not a multiple of 10, frames below 2, or below 4 over sixty). Hours are not limited and
/// may be negative.
[[nodiscard]] std::optional<TimecodeComponents> parseTimecode(std::string_view text,
                                                              DropFrameBase base);

/// Frames from 00:00:00;00 to the drop-frame timecode `text` (read by `parseTimecode`, absent
/// when it is absent): at 29.97 01:00:00;00 is frame 107892, at 59.94 frame 215784. A count below
/// 0 (negative hours) gives 0. Absent when a step of the count overflows 64 bits, which only huge
/// hours can do.
[[nodiscard]] std::optional<std::int64_t> dropFrameCount(std::string_view text, DropFrameBase base);

/// The timecode text of the frame `frame` frames after 00:00:00:00, counting `fps` whole frames a
/// second (the frame base): the inverse of `timecodeFrameCount`. Under drop-frame (over
/// `DropFrameBase::Sixty` when `fps` exceeds 59, else `DropFrameBase::Thirty`) the skipped labels
/// are stepped over, so frame 1800 at 29.97 is "00:01:00;02". Hours wrap after 23, as on a day's
/// clock. Absent for a negative frame or `fps` below 1.
[[nodiscard]] std::optional<std::string> timecodeTextForFrame(std::int64_t frame,
                                                              int fps,
                                                              FrameCounting counting);

}  // namespace kestrin::timecode
