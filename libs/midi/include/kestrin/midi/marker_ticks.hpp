#pragma once

#include <kestrin/midi/midi_frame_rate.hpp>

#include <cstdint>
#include <span>
#include <vector>

namespace kestrin::midi {

/// The distances in frames between consecutive marker events of an export: `startOffsetFrames`
/// (time zero to the first marker), then `firstGapFrames` when it is 1 or more (an extra marker
/// after the first; 0 or below adds nothing), then every element of `frameDeltas` in order. The
/// result has one element per marker event. Values are taken as given, negative ones included.
[[nodiscard]] std::vector<std::int64_t> markerFrameList(std::span<const std::int64_t> frameDeltas,
                                                        std::int64_t startOffsetFrames,
                                                        std::int64_t firstGapFrames);

/// One MIDI delta time in ticks per element of `frameList` (distances in frames, as from
/// markerFrameList), at the ticks per frame of `rate`.
///
/// Each element is added to a running frame sum; the sum's absolute tick position is
/// (sum * numerator + denominator / 2) / denominator with the division truncating toward zero, so
/// non-negative sums round halves up and rounding errors never build up along the list. The delta
/// is the position minus the previous position (0 before the first), or 0 when that is negative;
/// the previous position moves to the new one either way.
///
/// The arithmetic is exact in 128 bits for any input; a delta beyond UINT64_MAX ticks (frame sums
/// from about 2.3e16 frames on at the slowest rate) is given as UINT64_MAX.
[[nodiscard]] std::vector<std::uint64_t> tickDeltasForFrames(
    std::span<const std::int64_t> frameList, MIDIFrameRate rate);

}  // namespace kestrin::midi
