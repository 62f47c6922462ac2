#include <kestrin/scan/luma_plane.hpp>
#include <kestrin/scan/luma_signature.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <vector>

namespace kestrin::scan {
namespace {

// A plane whose sample at (x, y) is value(x, y).
LumaPlane planeOf(int width, int height, const std::function<int(int, int)>& value)
{
    LumaPlane plane(width, height);
    auto bytes = plane.bytes();
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            bytes[static_cast<std::size_t>(y * width + x)] = static_cast<std::uint8_t>(value(x, y));
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

TEST(SignatureToneCurve, MatchesTheWorkedRows)
{
    struct Row
    {
        int input;
        int entry;
    };
    const Row rows[] = {{0, 15},
                        {6, 15},
                        {7, 21},
                        {16, 49},
                        {64, 122},
                        {128, 188},
                        {192, 243},
                        {207, 255},
                        {230, 255},
                        {255, 255}};
    const auto& curve = signatureToneCurve();
    for (const Row& row : rows) {
        EXPECT_EQ(curve[static_cast<std::size_t>(row.input)], row.entry) << "input " << row.input;
    }
    EXPECT_LT(curve[206], 255);
    for (std::size_t v = 1; v < curve.size(); ++v) {
        EXPECT_LE(curve[v - 1], curve[v]) << "input " << v;
    }
    LumaPlane plane = planeOf(3, 1, {0, 64, 255});
    applySignatureToneCurve(plane);
    EXPECT_EQ(plane, planeOf(3, 1, {15, 122, 255}));
}

// 96 x 54 cuts into 8 x 6 blocks of 12 x 9 pixels; block (c, r) covers x in [12c, 12c + 12) and
// y in [9r, 9r + 9).
int blockIndexAt(int x, int y)
{
    return (y / 9) * 8 + x / 12;
}

TEST(BlockDifferenceScore, SignatureSizeTakesTheMeanOfTheFortyMiddleBlocks)
{
    const LumaPlane black(96, 54);
    // Block b differs by b everywhere: sorted values 0..47, the 4 lowest and 4 highest dropped,
    // mean of 4..43 = 23.5.
    const LumaPlane ramp = planeOf(96, 54, [](int x, int y) { return blockIndexAt(x, y); });
    EXPECT_FLOAT_EQ(blockDifferenceScore(ramp, black), 23.5F);
    EXPECT_FLOAT_EQ(blockDifferenceScore(black, ramp), 23.5F);

    // A single block changing completely (a caption, say) is trimmed away: the score stays at the
    // 10 of the other blocks, where a plain mean would give (47 x 10 + 245) / 48 = 14.9.
    const LumaPlane dim = planeOf(96, 54, [](int, int) { return 10; });
    const LumaPlane dimWithCaption =
        planeOf(96, 54, [](int x, int y) { return blockIndexAt(x, y) == 20 ? 255 : 10; });
    EXPECT_FLOAT_EQ(blockDifferenceScore(dimWithCaption, black), 10.0F);

    // Differences inside a block are averaged before trimming: half of every block at 20.
    const LumaPlane halfLit = planeOf(96, 54, [](int x, int) { return x % 12 < 6 ? 20 : 0; });
    EXPECT_FLOAT_EQ(blockDifferenceScore(halfLit, black), 10.0F);
    EXPECT_FLOAT_EQ(blockDifferenceScore(dim, dim), 0.0F);
}

TEST(BlockDifferenceScore, SmallPlanesSkipEmptyBlocks)
{
    struct Row
    {
        const char* name;
        int width;
        int height;
        std::function<int(int, int)> current;  // compared with a black plane
        float score;
    };
    const std::vector<int> fiveBlocks = {1, 2, 3, 4, 100};
    const std::vector<int> twelveBlocks = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 100};
    const Row rows[] = {
        // Below 8 x 6 every block is one pixel and blocks past the edge are empty.
        {"one pixel", 1, 1, [](int, int) { return 42; }, 42.0F},
        {"2 x 2: four blocks, plain mean",
         2,
         2,
         [](int x, int y) { return 10 + 10 * (2 * y + x); },
         25.0F},
        {"5 x 1: five blocks, t = 0",
         5,
         1,
         [&](int x, int) { return fiveBlocks[static_cast<std::size_t>(x)]; },
         22.0F},
        // 12 blocks, t = 1: 1 and 100 dropped, mean of 2..11.
        {"4 x 3: twelve blocks, t = 1",
         4,
         3,
         [&](int x, int y) { return twelveBlocks[static_cast<std::size_t>(4 * y + x)]; },
         6.5F},
        // bw = 1, so the last block column covers x = 7..9 and the 30 at x = 9 gives six blocks
        // of 10; of the sorted 42 zeros and 6 tens, positions 4..43 hold two tens: 20 / 40.
        {"10 x 6: the last column takes the remainder",
         10,
         6,
         [](int x, int) { return x == 9 ? 30 : 0; },
         0.5F},
        // bh = 1, so the last block row covers y = 5..6 and the 48 of row 6 gives eight blocks
        // of 24; of 40 zeros and 8 of them, positions 4..43 hold four: 96 / 40.
        {"8 x 7: the last row takes the remainder",
         8,
         7,
         [](int, int y) { return y == 6 ? 48 : 0; },
         2.4F},
        {"empty plane", 0, 0, [](int, int) { return 0; }, 0.0F},
    };
    for (const Row& row : rows) {
        const LumaPlane current = planeOf(row.width, row.height, row.current);
        EXPECT_FLOAT_EQ(blockDifferenceScore(current, LumaPlane(row.width, row.height)), row.score)
            << row.name;
    }
}

TEST(MeanAbsoluteDifference, AveragesOverTheWholePlaneOfEqualSizes)
{
    EXPECT_FLOAT_EQ(meanAbsoluteDifference(planeOf(3, 1, {1, 2, 3}), planeOf(3, 1, {3, 2, 1})),
                    4.0F / 3.0F);
    // No trimming: one changed sample out of 96 x 54 counts in full.
    const LumaPlane spot = planeOf(96, 54, [](int x, int y) { return x == 0 && y == 0 ? 255 : 0; });
    EXPECT_FLOAT_EQ(meanAbsoluteDifference(spot, LumaPlane(96, 54)), 255.0F / 5184.0F);
    EXPECT_EQ(meanAbsoluteDifference(LumaPlane(), LumaPlane()), 0.0F);
    EXPECT_EQ(meanAbsoluteDifference(planeOf(1, 1, {9}), planeOf(2, 1, {0, 0})), 0.0F);
    EXPECT_EQ(blockDifferenceScore(planeOf(1, 1, {9}), planeOf(2, 1, {0, 0})), 0.0F);
}

media::LumaFrame frameOver(const std::vector<std::uint8_t>& bytes,
                           int width,
                           int height,
                           std::ptrdiff_t bytesPerRow)
{
    media::LumaFrame frame;
    frame.width = width;
    frame.height = height;
    frame.bytesPerRow = bytesPerRow;
    frame.data = bytes.data();
    return frame;
}

TEST(LumaExtraction, CopiesRowsHonouringTheRowStride)
{
    // Two rows of 3 samples, 5 bytes apart; the padding must not leak into the plane.
    const std::vector<std::uint8_t> source = {1, 2, 3, 99, 99, 4, 5, 6, 99, 99};
    LumaPlane plane(3, 2);
    ASSERT_TRUE(extractLumaPlane(frameOver(source, 3, 2, 5), plane));
    EXPECT_EQ(plane, planeOf(3, 2, {1, 2, 3, 4, 5, 6}));

    const std::vector<std::uint8_t> packed = {7, 8, 9, 10, 11, 12};
    ASSERT_TRUE(extractLumaPlane(frameOver(packed, 3, 2, 3), plane));
    EXPECT_EQ(plane, planeOf(3, 2, {7, 8, 9, 10, 11, 12}));
}

TEST(LumaExtraction, ResamplesAFrameOfAnotherSize)
{
    // 4 x 2 (stride 6) into 2 x 1: each sample is the rounded mean of a 2 x 2 box.
    const std::vector<std::uint8_t> large = {10, 20, 100, 101, 0, 0, 30, 41, 102, 102, 0, 0};
    LumaPlane small(2, 1);
    ASSERT_TRUE(extractLumaPlane(frameOver(large, 4, 2, 6), small));
    EXPECT_EQ(small, planeOf(2, 1, {25, 101}));

    // 2 x 1 into 4 x 2: every sample repeats the one it falls on.
    const std::vector<std::uint8_t> tiny = {5, 9};
    LumaPlane grown(4, 2);
    ASSERT_TRUE(extractLumaPlane(frameOver(tiny, 2, 1, 2), grown));
    EXPECT_EQ(grown, planeOf(4, 2, {5, 5, 9, 9, 5, 5, 9, 9}));

    // A full 1920 x 1080 frame of one value into the signature size.
    const std::vector<std::uint8_t> full(1920 * 1080, 77);
    LumaPlane signature(96, 54);
    ASSERT_TRUE(extractLumaPlane(frameOver(full, 1920, 1080, 1920), signature));
    EXPECT_EQ(signature, planeOf(96, 54, [](int, int) { return 77; }));
}

TEST(LumaExtraction, UnreadableFramesLeaveThePlaneAlone)
{
    const std::vector<std::uint8_t> bytes = {1, 2, 3, 4};
    const LumaPlane before = planeOf(2, 2, {9, 9, 9, 9});
    media::LumaFrame noImage = frameOver(bytes, 2, 2, 2);
    noImage.data = nullptr;
    const media::LumaFrame cases[] = {
        noImage,
        frameOver(bytes, 0, 2, 2),
        frameOver(bytes, 2, 0, 2),
        frameOver(bytes, 2, 2, 1),  // stride shorter than a row
    };
    for (const media::LumaFrame& frame : cases) {
        LumaPlane plane = before;
        EXPECT_FALSE(isReadableFrame(frame));
        EXPECT_FALSE(extractLumaPlane(frame, plane));
        EXPECT_EQ(plane, before);
    }
}

}  // namespace
}  // namespace kestrin::scan
