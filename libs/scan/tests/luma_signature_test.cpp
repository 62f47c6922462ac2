#include <kestrin/scan/luma_plane.hpp>
#include <kestrin/scan/luma_signature.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <tuple>
#include <utility>
#include <vector>

namespace kestrin::scan {
namespace {

using Bytes = std::vector<std::uint8_t>;

// A plane whose sample at (x, y) is value(x, y).
LumaPlane planeOf(int width, int height, const std::function<int(int, int)>& value)
{
    LumaPlane plane(width, height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            plane.bytes()[static_cast<std::size_t>(y * width + x)] =
                static_cast<std::uint8_t>(value(x, y));
        }
    }
    return plane;
}

// A plane of the given samples, row-major.
LumaPlane planeOf(int width, int height, const std::vector<int>& samples)
{
    return planeOf(width, height, [&](int x, int y) {
        return samples[static_cast<std::size_t>(y * width + x)];
    });
}

TEST(SignatureToneCurve, MatchesTheWorkedRowsAndNeverFalls)
{
    const std::pair<int, int> rows[] = {{0, 15},
                                        {6, 15},
                                        {7, 21},
                                        {16, 49},
                                        {64, 122},
                                        {128, 188},
                                        {192, 243},
                                        {207, 255},
                                        {255, 255}};
    const auto& curve = signatureToneCurve();
    for (const auto& [input, entry] : rows) {
        EXPECT_EQ(curve[static_cast<std::size_t>(input)], entry) << "input " << input;
    }
    EXPECT_LT(curve[206], 255);
    for (std::size_t v = 1; v < curve.size(); ++v) {
        EXPECT_LE(curve[v - 1], curve[v]) << "input " << v;
    }
    LumaPlane plane = planeOf(3, 1, std::vector{0, 64, 255});
    applySignatureToneCurve(plane);
    EXPECT_EQ(plane, planeOf(3, 1, std::vector{15, 122, 255}));
}

TEST(LumaDifference, BlockScoreAveragesBlocksAndTrimsTheExtremes)
{
    // 96 x 54 cuts into 8 x 6 blocks of 12 x 9 pixels; block (c, r) covers x in [12c, 12c + 12)
    // and y in [9r, 9r + 9).
    const auto block = [](int x, int y) {
        return (y / 9) * 8 + x / 12;
    };
    const std::vector<int> fiveBlocks = {1, 2, 3, 4, 100};
    const std::vector<int> twelveBlocks = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 100};
    // Name, size, the current plane (compared with a black one, both ways), the score.
    using Row = std::tuple<const char*, int, int, std::function<int(int, int)>, float>;
    const Row rows[] = {
        // Block b differs by b: sorted 0..47, the 4 lowest and 4 highest dropped, mean of 4..43.
        {"96 x 54 ramp", 96, 54, block, 23.5F},
        // One block changing completely (a caption) is trimmed away; a plain mean would give 14.9.
        {"caption", 96, 54, [&](int x, int y) { return block(x, y) == 20 ? 255 : 10; }, 10.0F},
        // Differences inside a block are averaged before trimming: half of every block at 20.
        {"half of each block", 96, 54, [](int x, int) { return x % 12 < 6 ? 20 : 0; }, 10.0F},
        {"no change", 96, 54, [](int, int) { return 0; }, 0.0F},
        // Below 8 x 6 every block is one pixel and blocks past the edge are empty.
        {"one pixel", 1, 1, [](int, int) { return 42; }, 42.0F},
        {"2 x 2: plain mean", 2, 2, [](int x, int y) { return 10 + 10 * (2 * y + x); }, 25.0F},
        {"5 x 1: t = 0",
         5,
         1,
         [&](int x, int) { return fiveBlocks[static_cast<std::size_t>(x)]; },
         22.0F},
        // 12 blocks, t = 1: 1 and 100 dropped, mean of 2..11.
        {"4 x 3: t = 1",
         4,
         3,
         [&](int x, int y) { return twelveBlocks[static_cast<std::size_t>(4 * y + x)]; },
         6.5F},
        // Block width 1, so the last block column covers x = 7..9 and the 30 at x = 9 gives six
        // blocks of 10; of the sorted 42 zeros and 6 tens, positions 4..43 hold two tens.
        {"10 x 6: last column", 10, 6, [](int x, int) { return x == 9 ? 30 : 0; }, 0.5F},
        // Block height 1, so the last block row covers y = 5..6 and the 48 of row 6 gives eight
        // blocks of 24; of 40 zeros and 8 of them, positions 4..43 hold four: 96 / 40.
        {"8 x 7: last row", 8, 7, [](int, int y) { return y == 6 ? 48 : 0; }, 2.4F},
        {"empty plane", 0, 0, [](int, int) { return 0; }, 0.0F},
    };
    for (const auto& [name, width, height, value, score] : rows) {
        const LumaPlane current = planeOf(width, height, value);
        EXPECT_FLOAT_EQ(blockDifferenceScore(current, LumaPlane(width, height)), score) << name;
        EXPECT_FLOAT_EQ(blockDifferenceScore(LumaPlane(width, height), current), score) << name;
    }
    EXPECT_EQ(blockDifferenceScore(planeOf(1, 1, std::vector{9}), LumaPlane(2, 1)), 0.0F)
        << "planes of different sizes";
}

TEST(LumaDifference, MeanAbsoluteDifferenceCountsEverySampleUntrimmed)
{
    EXPECT_FLOAT_EQ(meanAbsoluteDifference(planeOf(3, 1, std::vector{1, 2, 3}),
                                           planeOf(3, 1, std::vector{3, 2, 1})),
                    4.0F / 3.0F);
    // One changed sample out of 96 x 54 counts in full.
    const LumaPlane spot = planeOf(96, 54, [](int x, int y) { return x + y == 0 ? 255 : 0; });
    EXPECT_FLOAT_EQ(meanAbsoluteDifference(spot, LumaPlane(96, 54)), 255.0F / 5184.0F);
    EXPECT_EQ(meanAbsoluteDifference(LumaPlane(), LumaPlane()), 0.0F) << "empty planes";
    EXPECT_EQ(meanAbsoluteDifference(planeOf(1, 1, std::vector{9}), LumaPlane(2, 1)), 0.0F)
        << "planes of different sizes";
}

TEST(LumaExtraction, HonoursTheRowStrideAndSkipsUnreadableFrames)
{
    // Source bytes, width, height, stride, plane size, expected plane.
    using Row = std::tuple<Bytes, int, int, std::ptrdiff_t, int, int, std::vector<int>>;
    const Row rows[] = {
        // Two rows of 3 samples, 5 bytes apart: the padding must not leak into the plane.
        {{1, 2, 3, 99, 99, 4, 5, 6, 99, 99}, 3, 2, 5, 3, 2, {1, 2, 3, 4, 5, 6}},
        {{7, 8, 9, 10, 11, 12}, 3, 2, 3, 3, 2, {7, 8, 9, 10, 11, 12}},
    };
    for (const auto& [source, width, height, stride, planeWidth, planeHeight, expected] : rows) {
        LumaPlane plane(planeWidth, planeHeight);
        ASSERT_TRUE(extractLumaPlane({{}, width, height, stride, source.data()}, plane));
        EXPECT_EQ(plane, planeOf(planeWidth, planeHeight, expected));
    }

    const Bytes bytes = {1, 2, 3, 4};
    const LumaPlane before = planeOf(2, 2, std::vector{9, 9, 9, 9});
    // No image, no width, no height, a stride shorter than a row.
    for (const media::LumaFrame& frame : {media::LumaFrame{{}, 2, 2, 2, nullptr},
                                          media::LumaFrame{{}, 0, 2, 2, bytes.data()},
                                          media::LumaFrame{{}, 2, 0, 2, bytes.data()},
                                          media::LumaFrame{{}, 2, 2, 1, bytes.data()}}) {
        LumaPlane plane = before;
        EXPECT_FALSE(isReadableFrame(frame));
        EXPECT_FALSE(extractLumaPlane(frame, plane));
        EXPECT_EQ(plane, before);
    }
    // Readable, but not of the plane's size.
    LumaPlane plane = before;
    EXPECT_FALSE(extractLumaPlane({{}, 4, 1, 4, bytes.data()}, plane));
    EXPECT_EQ(plane, before);
}

}  // namespace
}  // namespace kestrin::scan
