#include <kestrin/midi/marker_ticks.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <vector>

namespace kestrin::midi {
namespace {

TEST(MIDIFrameRate, TicksPerFrameAre19200OverTheRealRate)
{
    // Frames per second of each code as fpsNumerator / fpsDenominator; ticks per frame must be
    // 19200 over that.
    constexpr std::int64_t kFpsNumerator[] = {
        60, 60, 60000, 60000, 50, 48, 48000, 30, 30, 30000, 30000, 25, 24, 24000};
    constexpr std::int64_t kFpsDenominator[] = {
        1, 1, 1001, 1001, 1, 1, 1001, 1, 1, 1001, 1001, 1, 1, 1001};
    for (int code = 0; code < kMIDIFrameRateCount; ++code) {
        const TickRatio ratio = ticksPerFrame(static_cast<MIDIFrameRate>(code));
        EXPECT_EQ(ratio.numerator * kFpsNumerator[code],
                  19200 * kFpsDenominator[code] * ratio.denominator)
            << "code " << code;
    }
}

TEST(MIDIFrameRate, CodesOutsideTheTableGive24Fps)
{
    EXPECT_EQ(ticksPerFrame(static_cast<MIDIFrameRate>(kMIDIFrameRateCount)), (TickRatio{800, 1}));
    EXPECT_EQ(ticksPerFrame(static_cast<MIDIFrameRate>(255)), (TickRatio{800, 1}));
}

TEST(MIDIMarkerFrameList, ExtraFirstGapOnlyWhenAtLeastOneFrame)
{
    const std::vector<std::int64_t> deltas{100, 7};
    EXPECT_EQ(markerFrameList(deltas, 250, 0), (std::vector<std::int64_t>{250, 100, 7}));
    EXPECT_EQ(markerFrameList(deltas, 250, -3), (std::vector<std::int64_t>{250, 100, 7}));
    EXPECT_EQ(markerFrameList(deltas, 250, 1), (std::vector<std::int64_t>{250, 1, 100, 7}));
    EXPECT_EQ(markerFrameList({}, 0, 5), (std::vector<std::int64_t>{0, 5}));
}

TEST(MIDITickDeltas, RoundOnAbsolutePositions)
{
    struct Row
    {
        const char* name;
        MIDIFrameRate rate;
        std::vector<std::int64_t> frames;
        std::vector<std::uint64_t> ticks;
    };
    const Row rows[] = {
        {"25 fps, 10 s offset then an edit 100 frames on",
         MIDIFrameRate::Fps25,
         {250, 100},
         {192000, 76800}},
        {"29.97, one long distance", MIDIFrameRate::Fps2997NonDrop, {107892}, {69119931}},
        // The rows of the rounding table beside tickDeltasForFrames.
        {"23.976, one frame rounds up", MIDIFrameRate::Fps23976, {1}, {801}},
        {"23.976, two single frames", MIDIFrameRate::Fps23976, {1, 1}, {801, 801}},
        {"23.976, negative sum truncates", MIDIFrameRate::Fps23976, {-1, 2}, {0, 1601}},
        {"25 fps, clamped delta still moves the position",
         MIDIFrameRate::Fps25,
         {10, -5, 3},
         {7680, 0, 2304}},
        {"zero distances", MIDIFrameRate::Fps24, {0, 0}, {0, 0}},
        {"empty list", MIDIFrameRate::Fps24, {}, {}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(tickDeltasForFrames(row.frames, row.rate), row.ticks);
    }
}

TEST(MIDITickDeltas, DropFrameAndNonDropLandOnTheSameTicks)
{
    const std::vector<std::int64_t> frames{107892, 1, 17982, 3, 1000000};
    EXPECT_EQ(tickDeltasForFrames(frames, MIDIFrameRate::Fps2997DropFrame),
              tickDeltasForFrames(frames, MIDIFrameRate::Fps2997NonDrop));
    EXPECT_EQ(tickDeltasForFrames(frames, MIDIFrameRate::Fps5994DropFrame),
              tickDeltasForFrames(frames, MIDIFrameRate::Fps5994NonDrop));
}

TEST(MIDITickDeltas, HugeDistancesSaturateWithoutOverflow)
{
    constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
    constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
    constexpr std::uint64_t kSaturated = std::numeric_limits<std::uint64_t>::max();
    // Frame sums far outside 64 bits, back to -2 and then to 1: the sum stays exact, so the last
    // step is the plain 23.976 one from -1601 to 801 ticks.
    EXPECT_EQ(tickDeltasForFrames(std::vector<std::int64_t>{kMax, kMax, kMin, kMin, kMin, kMax, 3},
                                  MIDIFrameRate::Fps23976),
              (std::vector<std::uint64_t>{kSaturated, kSaturated, 0, 0, 0, kSaturated, 2402}));
    // The last distance whose delta still fits 64 bits at 23.976 fps, and the first that does not.
    EXPECT_EQ(
        tickDeltasForFrames(std::vector<std::int64_t>{23035394697439500}, MIDIFrameRate::Fps23976),
        (std::vector<std::uint64_t>{18446744073709551600U}));
    EXPECT_EQ(
        tickDeltasForFrames(std::vector<std::int64_t>{23035394697439501}, MIDIFrameRate::Fps23976),
        (std::vector<std::uint64_t>{kSaturated}));
}

}  // namespace
}  // namespace kestrin::midi
