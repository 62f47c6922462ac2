#pragma once

#include <kestrin/core/frame_rate.hpp>

#include <cstdint>

namespace kestrin::midi {

/// The frame-rate code of a marker export, 0 to 13. Each code selects how many MIDI ticks one
/// frame lasts at 19200 ticks per second (see ticksPerFrame). Codes 0 and 7 are second codes for
/// 60 and 30 fps that give the same ticks as 1 and 8; the view model never chooses them.
enum class MIDIFrameRate : std::uint8_t {
    Fps60Alternate = 0,
    Fps60 = 1,
    Fps5994DropFrame = 2,
    Fps5994NonDrop = 3,
    Fps50 = 4,
    Fps48 = 5,
    Fps47952 = 6,
    Fps30Alternate = 7,
    Fps30 = 8,
    Fps2997DropFrame = 9,
    Fps2997NonDrop = 10,
    Fps25 = 11,
    Fps24 = 12,
    Fps23976 = 13,
};

/// The number of codes: every valid code is below this.
inline constexpr int kMIDIFrameRateCount = 14;

/// Ticks per frame as the exact ratio numerator / denominator (19200 divided by the frame rate),
/// e.g. 32032 / 50 = 640.64 ticks per 29.97 frame. The denominator is always 1 or more.
struct TickRatio
{
    std::int64_t numerator = 0;
    std::int64_t denominator = 1;

    friend bool operator==(const TickRatio&, const TickRatio&) = default;
};

/// The ticks per frame of `rate`. Drop-frame and non-drop codes of the same rate give the same
/// ratio: drop-frame only relabels frames, it does not change how long they last. A value outside
/// 0..13 (a cast from an unchecked integer) gives the ratio of code 12, 24 fps, which is also the
/// code the view model chooses for a rate it does not recognise.
[[nodiscard]] TickRatio ticksPerFrame(MIDIFrameRate rate);

/// The frame rate of `rate`: 19200 / ticksPerFrame(rate), so 30000/1001 for both 29.97 codes and
/// 24/1 for a value outside 0..13.
[[nodiscard]] core::FrameRate framesPerSecond(MIDIFrameRate rate);

/// The code of `rate` with drop-frame numbering when `dropFrame` (ignored where the rate has
/// none): the main code where two codes share a rate (1 for 60, 8 for 30), and 24 fps for a rate
/// that has no code.
[[nodiscard]] MIDIFrameRate frameRateCode(core::FrameRate rate, bool dropFrame);

/// Whether `rate` is one of the two drop-frame codes (2 and 9).
[[nodiscard]] bool isDropFrame(MIDIFrameRate rate);

}  // namespace kestrin::midi
