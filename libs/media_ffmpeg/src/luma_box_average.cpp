#include "luma_box_average.hpp"

#include <algorithm>

namespace kestrin::media_ffmpeg::detail {
namespace {

// A column of one block sums at most this many samples of 255 in 16 bits.
constexpr int kLargestFactor = 257;

}  // namespace

bool canBoxAverage(int sourceWidth, int sourceHeight, int width, int height)
{
    if (width < 1 || height < 1 || sourceWidth < width || sourceHeight < height) {
        return false;
    }
    return sourceWidth % width == 0 && sourceHeight % height == 0
           && sourceHeight / height <= kLargestFactor;
}

void boxAverageLuma(const std::uint8_t* source,
                    std::ptrdiff_t bytesPerRow,
                    int sourceWidth,
                    int sourceHeight,
                    LumaSourceRange range,
                    int width,
                    int height,
                    std::span<std::uint8_t> out,
                    std::vector<std::uint16_t>& rowSums)
{
    const int blockWidth = sourceWidth / width;
    const int blockHeight = sourceHeight / height;
    const std::int64_t count = std::int64_t{blockWidth} * blockHeight;
    rowSums.resize(static_cast<std::size_t>(sourceWidth));
    std::uint16_t* sums = rowSums.data();
    std::uint8_t* target = out.data();
    for (int y = 0; y < height; ++y) {
        // The block's rows summed column by column: the bulk of the work, and a loop the
        // compiler turns into vector adds (this file is built with -O3).
        std::fill(rowSums.begin(), rowSums.end(), std::uint16_t{0});
        for (int row = 0; row < blockHeight; ++row) {
            const std::uint8_t* line =
                source + (std::ptrdiff_t{y} * blockHeight + row) * bytesPerRow;
            for (int x = 0; x < sourceWidth; ++x) {
                sums[x] = static_cast<std::uint16_t>(sums[x] + line[x]);
            }
        }
        for (int x = 0; x < width; ++x) {
            const std::uint16_t* block = sums + std::ptrdiff_t{x} * blockWidth;
            std::int64_t sum = 0;
            for (int column = 0; column < blockWidth; ++column) {
                sum += block[column];
            }
            // Rounded to nearest: the mean, or for video range (mean - 16) x 255 / 219.
            std::int64_t value = 0;
            if (range == LumaSourceRange::full) {
                value = (sum + count / 2) / count;
            } else {
                const std::int64_t numerator = (sum - 16 * count) * 255;
                const std::int64_t denominator = 219 * count;
                value = numerator >= 0 ? (numerator + denominator / 2) / denominator
                                       : -((-numerator + denominator / 2) / denominator);
            }
            *target++ = static_cast<std::uint8_t>(std::clamp<std::int64_t>(value, 0, 255));
        }
    }
}

}  // namespace kestrin::media_ffmpeg::detail
