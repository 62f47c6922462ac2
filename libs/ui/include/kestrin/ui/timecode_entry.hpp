#pragma once

// The text rules of the timecode entry field, apart from the widget.
//
// The field keeps a digit string of exactly eight characters (HHMMSSFF) and works like the keypad
// of a hardware timecode unit: what is typed or pasted enters at the right and pushes the older
// digits out on the left, only numeric characters count, and Backspace takes the last digit away
// and lets a "0" in on the left. "Character" and "numeric" have the meaning of
// kestrin/timecode/timecode.hpp: a user-perceived character whose first code point is a Unicode
// numeral.
//
// Pure functions of their arguments; safe on any thread.

#include <kestrin/core/frame_rate.hpp>

#include <QString>
#include <QStringView>

namespace kestrin::ui {

/// Characters in the digit string the field keeps.
inline constexpr qsizetype kFieldDigitCount = 8;

/// The digit string the field keeps for `text`: its numeric characters, the last eight of them,
/// with "0"s added on the left up to eight. "1" gives "00000001", "12:34:56:78 abc 9" gives
/// "23456789", "" and "abc" give "00000000".
[[nodiscard]] QString normalizedDigits(QStringView text);

/// The text the field shows for `digits`: `normalizedDigits(digits)` as HH:MM:SS:FF, with ";"
/// before the frames when `dropFrame` holds. "1" gives "00:00:00:01", "123456789" with
/// `dropFrame` gives "23:45:67;89".
[[nodiscard]] QString fieldText(QStringView digits, bool dropFrame);

/// The digit string after `inserted` is typed or pasted into a field that keeps `digits`: the
/// numeric characters of `inserted` are added at the right and the string is normalised again,
/// so a text without numerals changes nothing and a long one leaves its last eight.
[[nodiscard]] QString digitsAfterInsert(QStringView digits, QStringView inserted);

/// The digit string after Backspace in a field that keeps `digits`: the last character goes and
/// a "0" enters on the left ("00000012" gives "00000001").
[[nodiscard]] QString digitsAfterBackspace(QStringView digits);

/// Whether `digits` (as kept by the field) names an existing timecode at the nominal rate
/// `nominalFps`, with drop-frame numbering when `dropFrame` holds. The rules are those of
/// `kestrin::timecode::isValidTimecodeDigits`.
[[nodiscard]] bool isValidFieldDigits(QStringView digits,
                                      bool dropFrame,
                                      core::FrameRate nominalFps);

}  // namespace kestrin::ui
