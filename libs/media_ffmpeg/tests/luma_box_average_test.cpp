#include "luma_box_average.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace kestrin::media_ffmpeg::detail {
namespace {

// Against the plain definition, in floating point: each output sample is the mean of its block,
// stretched from video range when asked, rounded to nearest and limited to 0-255. Rows wider than
// the picture (as decoders pad them) must not leak into the result.
TEST(LumaBoxAverage, IsTheRoundedMeanOfEachBlock)
{
    struct Case
    {
        int sourceWidth, sourceHeight, width, height;
        LumaSourceRange range;
    };
    const Case cases[] = {{1920, 1080, 96, 54, LumaSourceRange::video},
                          {1920, 1080, 320, 180, LumaSourceRange::full},
                          {96, 54, 96, 54, LumaSourceRange::video},
                          {30, 20, 10, 4, LumaSourceRange::full}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.sourceWidth) + "x" + std::to_string(c.sourceHeight));
        ASSERT_TRUE(canBoxAverage(c.sourceWidth, c.sourceHeight, c.width, c.height));
        const std::ptrdiff_t bytesPerRow = c.sourceWidth + 32;
        std::vector<std::uint8_t> source(static_cast<std::size_t>(bytesPerRow * c.sourceHeight));
        for (std::size_t i = 0; i < source.size(); ++i) {
            const auto column = static_cast<std::ptrdiff_t>(i) % bytesPerRow;
            source[i] =
                column >= c.sourceWidth ? 255 : static_cast<std::uint8_t>((i * 37 + i / 7) % 256);
        }
        std::vector<std::uint8_t> out(static_cast<std::size_t>(c.width * c.height));
        std::vector<std::uint16_t> scratch;
        boxAverageLuma(source.data(),
                       bytesPerRow,
                       c.sourceWidth,
                       c.sourceHeight,
                       c.range,
                       c.width,
                       c.height,
                       out,
                       scratch);

        const int blockWidth = c.sourceWidth / c.width;
        const int blockHeight = c.sourceHeight / c.height;
        for (int y = 0; y < c.height; ++y) {
            for (int x = 0; x < c.width; ++x) {
                double sum = 0;
                for (int row = 0; row < blockHeight; ++row) {
                    for (int column = 0; column < blockWidth; ++column) {
                        sum += source[static_cast<std::size_t>((y * blockHeight + row) * bytesPerRow
                                                               + x * blockWidth + column)];
                    }
                }
                double mean = sum / (blockWidth * blockHeight);
                if (c.range == LumaSourceRange::video) {
                    mean = (mean - 16.0) * 255.0 / 219.0;
                }
                const auto expected = static_cast<int>(std::clamp(std::round(mean), 0.0, 255.0));
                ASSERT_EQ(out[static_cast<std::size_t>(y * c.width + x)], expected)
                    << x << "," << y;
            }
        }
    }
    EXPECT_FALSE(canBoxAverage(1280, 720, 96, 54));  // 13.3: libswscale's area filter does these
    EXPECT_FALSE(canBoxAverage(48, 27, 96, 54));     // enlarging
}

}  // namespace
}  // namespace kestrin::media_ffmpeg::detail
