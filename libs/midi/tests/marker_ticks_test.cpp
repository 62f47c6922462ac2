#include <kestrin/midi/marker_ticks.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <tuple>
#include <vector>

namespace kestrin::midi {
namespace {

TEST(MIDIFrameRate, TicksPerFrameAre19200OverTheRealRate)
{
    // Frames per second of each code as numerator / denominator. Drop-frame and non-drop codes
    // share a rate, so they must share their ticks.
    constexpr std::int64_t kFpsNumerator[] = {
        60, 60, 60000, 60000, 50, 48, 48000, 30, 30, 30000, 30000, 25, 24, 24000};
    constexpr std::int64_t kFpsDenominator[] = {
        1, 1, 1001, 1001, 1, 1, 1001, 1, 1, 1001, 1001, 1, 1, 1001};
    for (int code = 0; code < kMIDIFrameRateCount; ++code) {
        const auto rate = static_cast<MIDIFrameRate>(code);
        const TickRatio ratio = ticksPerFrame(rate);
        EXPECT_EQ(ratio.numerator * kFpsNumerator[code],
                  19200 * kFpsDenominator[code] * ratio.denominator)
            << "code " << code;
        EXPECT_EQ(framesPerSecond(rate),
                  (core::FrameRate{kFpsNumerator[code], kFpsDenominator[code]}))
            << "code " << code;
        EXPECT_EQ(isDropFrame(rate), code == 2 || code == 9) << "code " << code;
        const MIDIFrameRate main = code == 0   ? MIDIFrameRate::Fps60
                                   : code == 7 ? MIDIFrameRate::Fps30
                                               : rate;
        EXPECT_EQ(frameRateCode(framesPerSecond(rate), isDropFrame(rate)), main) << "code " << code;
    }
    EXPECT_EQ(frameRateCode(core::kFps25, true), MIDIFrameRate::Fps25);
    EXPECT_EQ(frameRateCode(core::FrameRate{15, 1}, false), MIDIFrameRate::Fps24);
    // Codes outside the table give 24 fps.
    for (const int code : {kMIDIFrameRateCount, 255}) {
        EXPECT_EQ(ticksPerFrame(static_cast<MIDIFrameRate>(code)), (TickRatio{800, 1})) << code;
        EXPECT_EQ(framesPerSecond(static_cast<MIDIFrameRate>(code)), (core::FrameRate{24, 1}));
    }
}

// The marker list of an export and its tick deltas, as the exporter chains them.
TEST(MIDITickDeltas, RoundOnAbsolutePositionsAndSaturate)
{
    using enum MIDIFrameRate;
    constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
    constexpr std::int64_t kMin = std::numeric_limits<std::int64_t>::min();
    constexpr std::uint64_t kSat = std::numeric_limits<std::uint64_t>::max();
    // Name, rate, start offset, first gap, frame deltas, expected tick deltas.
    using Row = std::tuple<const char*,
                           MIDIFrameRate,
                           std::int64_t,
                           std::int64_t,
                           std::vector<std::int64_t>,
                           std::vector<std::uint64_t>>;
    const Row rows[] = {
        {"25 fps worked example", Fps25, 250, 0, {100}, {192000, 76800}},
        {"negative first gap adds nothing", Fps25, 250, -3, {100}, {192000, 76800}},
        {"first gap of one frame", Fps25, 250, 1, {100}, {192000, 768, 76800}},
        {"29.97, one long distance", Fps2997DropFrame, 107892, 0, {}, {69119931}},
        {"23.976, offset of one frame rounds up", Fps23976, 1, 0, {}, {801}},
        {"23.976, two single frames", Fps23976, 1, 1, {}, {801, 801}},
        {"23.976, negative sum truncates", Fps23976, -1, 0, {2}, {0, 1601}},
        {"clamped delta still moves the position", Fps25, 10, 0, {-5, 3}, {7680, 0, 2304}},
        // Sums far outside 64 bits, back to -2 and then to 1: the sum stays exact.
        {"huge",
         Fps23976,
         kMax,
         0,
         {kMax, kMin, kMin, kMin, kMax, 3},
         {kSat, kSat, 0, 0, 0, kSat, 2402}},
        {"largest that fits", Fps23976, 23035394697439500, 0, {}, {18446744073709551600U}},
        {"smallest that does not", Fps23976, 23035394697439501, 0, {}, {kSat}},
    };
    for (const auto& [name, rate, offset, firstGap, deltas, ticks] : rows) {
        EXPECT_EQ(tickDeltasForFrames(markerFrameList(deltas, offset, firstGap), rate), ticks)
            << name;
    }
}

}  // namespace
}  // namespace kestrin::midi
