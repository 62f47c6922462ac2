#include <kestrin/core/wide_math.hpp>
#include <kestrin/midi/marker_ticks.hpp>

#include <algorithm>
#include <limits>

namespace kestrin::midi {

namespace {

using core::Int128;

// The running sum of a list of 64-bit values cannot leave 128 bits (a vector holds fewer than 2^61
// elements), but the sum times a numerator could. No real list comes near 2^100 frames, so the sum
// is held to that before multiplying, which keeps sum * numerator + denominator / 2 below 2^116.
constexpr Int128 kSumLimit = Int128{1} << 100U;

}  // namespace

std::vector<std::int64_t> markerFrameList(std::span<const std::int64_t> frameDeltas,
                                          std::int64_t startOffsetFrames,
                                          std::int64_t firstGapFrames)
{
    std::vector<std::int64_t> frames;
    frames.reserve(frameDeltas.size() + 2);
    frames.push_back(startOffsetFrames);
    if (firstGapFrames >= 1) {
        frames.push_back(firstGapFrames);
    }
    frames.insert(frames.end(), frameDeltas.begin(), frameDeltas.end());
    return frames;
}

std::vector<std::uint64_t> tickDeltasForFrames(std::span<const std::int64_t> frameList,
                                               MIDIFrameRate rate)
{
    const TickRatio ratio = ticksPerFrame(rate);
    const Int128 numerator = ratio.numerator;
    const Int128 denominator = ratio.denominator;
    constexpr Int128 kMaxDelta = std::numeric_limits<std::uint64_t>::max();

    // Positions are rounded, deltas are differences of rounded positions. At 23.976 fps
    // (4004 / 5 = 800.8 ticks per frame):
    //
    //   frame   sum   sum * 4004 + 2   / 5 (truncated)   delta
    //     1      1         4006              801           801
    //     1      2         8010             1602           801   (rounding 800.8 per step: 1601)
    //
    // A negative sum truncates toward zero and its delta is clamped, yet it still becomes the
    // previous position:
    //
    //    -1     -1        -4002             -800             0
    //     2      1         4006              801          1601   (floor division would give 1602)
    std::vector<std::uint64_t> deltas;
    deltas.reserve(frameList.size());
    Int128 sum = 0;
    Int128 previousTick = 0;
    for (const std::int64_t frames : frameList) {
        sum += frames;
        const Int128 boundedSum = std::clamp(sum, -kSumLimit, kSumLimit);
        const Int128 tick = (boundedSum * numerator + denominator / 2) / denominator;
        const Int128 delta = std::clamp(tick - previousTick, Int128{0}, kMaxDelta);
        deltas.push_back(static_cast<std::uint64_t>(delta));
        previousTick = tick;
    }
    return deltas;
}

}  // namespace kestrin::midi
