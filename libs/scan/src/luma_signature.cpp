#include "robust_statistics.hpp"

#include <kestrin/scan/luma_signature.hpp>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstdlib>

namespace kestrin::scan {
namespace {

constexpr int kBlockRows = 6;
constexpr int kBlockColumns = 8;
constexpr int kMaxBlocks = kBlockRows * kBlockColumns;
// Below this many blocks there is nothing to trim: the plain mean is used.
constexpr int kFewestBlocksToTrim = 5;
constexpr double kTrimShare = 0.1;

std::array<std::uint8_t, 256> buildToneCurve()
{
    std::array<std::uint8_t, 256> curve{};
    for (int v = 0; v < 256; ++v) {
        const float x = std::max(static_cast<float>(v) / 255.0F - 0.025F, 0.0F);
        const float y = std::pow(x / 0.975F, 0.65F) * 1.08F + 0.06F;
        curve[static_cast<std::size_t>(v)] =
            static_cast<std::uint8_t>(std::lround(std::min(y, 1.0F) * 255.0F));
    }
    return curve;
}

// The end (exclusive) of block `index` of `count` blocks of `size` along an edge of `extent`: the
// last block reaches the edge, the others stop there at the latest.
int blockEnd(int index, int count, int size, int extent)
{
    return index == count - 1 ? extent : std::min((index + 1) * size, extent);
}

}  // namespace

const std::array<std::uint8_t, 256>& signatureToneCurve()
{
    static const std::array<std::uint8_t, 256> curve = buildToneCurve();
    return curve;
}

void applySignatureToneCurve(LumaPlane& plane)
{
    const auto& curve = signatureToneCurve();
    for (std::uint8_t& sample : plane.bytes()) {
        sample = curve[sample];
    }
}

float blockDifferenceScore(const LumaPlane& current, const LumaPlane& previous)
{
    if (current.width() != previous.width() || current.height() != previous.height()) {
        return 0.0F;
    }
    const int width = current.width();
    const int height = current.height();
    const std::uint8_t* a = current.bytes().data();
    const std::uint8_t* b = previous.bytes().data();
    const int blockHeight = std::max(height / kBlockRows, 1);
    const int blockWidth = width >= kBlockColumns ? width / kBlockColumns : 1;

    std::array<float, kMaxBlocks> values{};
    int count = 0;
    for (int blockRow = 0; blockRow < kBlockRows; ++blockRow) {
        const int top = blockRow * blockHeight;
        const int bottom = blockEnd(blockRow, kBlockRows, blockHeight, height);
        for (int blockColumn = 0; blockColumn < kBlockColumns; ++blockColumn) {
            const int left = blockColumn * blockWidth;
            const int right = blockEnd(blockColumn, kBlockColumns, blockWidth, width);
            if (bottom <= top || right <= left) {
                continue;
            }
            std::int64_t sum = 0;
            for (int y = top; y < bottom; ++y) {
                const std::size_t row =
                    static_cast<std::size_t>(y) * static_cast<std::size_t>(width);
                for (int x = left; x < right; ++x) {
                    const std::size_t at = row + static_cast<std::size_t>(x);
                    sum += std::abs(static_cast<int>(a[at]) - static_cast<int>(b[at]));
                }
            }
            const std::int64_t pixels =
                static_cast<std::int64_t>(bottom - top) * static_cast<std::int64_t>(right - left);
            values[static_cast<std::size_t>(count++)] =
                static_cast<float>(sum) / static_cast<float>(pixels);
        }
    }
    if (count == 0) {
        return 0.0F;
    }
    const auto begin = values.begin();
    const auto end = values.begin() + count;
    int trim = 0;
    if (count >= kFewestBlocksToTrim) {
        std::sort(begin, end);
        trim = std::min(static_cast<int>(count * kTrimShare), count - 1);
    }
    float total = 0.0F;
    for (auto value = begin + trim; value < end - trim; ++value) {
        total += *value;
    }
    return total / static_cast<float>(count - 2 * trim);
}

float meanAbsoluteDifference(const LumaPlane& a, const LumaPlane& b)
{
    if (a.width() != b.width() || a.height() != b.height()) {
        return 0.0F;
    }
    return detail::meanAbsoluteDifference<float>(a.bytes(), b.bytes());
}

}  // namespace kestrin::scan
