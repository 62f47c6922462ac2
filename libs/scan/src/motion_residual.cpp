#include "robust_statistics.hpp"

#include <kestrin/scan/motion_residual.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <limits>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kestrin::scan {
namespace {

constexpr int kMaxBlocks = 64;

// Sum of absolute differences of one 16-sample row.
inline unsigned rowDifference(const std::uint8_t* a, const std::uint8_t* b)
{
#if defined(__SSE2__)
    const __m128i sums = _mm_sad_epu8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(a)),
                                      _mm_loadu_si128(reinterpret_cast<const __m128i*>(b)));
    return static_cast<unsigned>(_mm_cvtsi128_si32(sums) + _mm_extract_epi16(sums, 4));
#else
    unsigned sum = 0;
    for (int i = 0; i < kMotionBlockWidth; ++i) {
        sum += static_cast<unsigned>(std::abs(int{a[i]} - int{b[i]}));
    }
    return sum;
#endif
}

// Sum of absolute differences between the block of `later` at (x, y) and the block of `earlier`
// at (x + dx, y + dy); stops early, with a sum above `bound`, once it exceeds it.
unsigned blockDifference(const std::uint8_t* earlier,
                         const std::uint8_t* later,
                         std::ptrdiff_t stride,
                         std::ptrdiff_t offset,
                         unsigned bound)
{
    unsigned sum = 0;
    for (int row = 0; row < kMotionBlockHeight && sum <= bound; ++row) {
        sum += rowDifference(earlier + offset + row * stride, later + row * stride);
    }
    return sum;
}

// The displacement of the whole picture, searched on planes halved in both directions up to
// kCoarseRadius coarse samples (twice that in plane samples) either way; found where the central
// part of the pictures matches best. Lets the block search follow pans too fast for its own
// radius. No motion for planes too small or too large for the coarse buffers.
constexpr int kCoarseRadius = 6;
constexpr int kCoarseMaxWidth = 64;
constexpr int kCoarseMaxHeight = 40;
using CoarsePlane =
    std::array<std::uint8_t, static_cast<std::size_t>(kCoarseMaxWidth) * kCoarseMaxHeight>;

void halve(const LumaPlane& plane, CoarsePlane& coarse, int width, int height)
{
    const std::uint8_t* bytes = plane.bytes().data();
    const int stride = plane.width();
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const std::uint8_t* p = bytes + 2 * y * stride + 2 * x;
            coarse[static_cast<std::size_t>(y * width + x)] =
                static_cast<std::uint8_t>((p[0] + p[1] + p[stride] + p[stride + 1] + 2) / 4);
        }
    }
}

Shift globalMotion(const LumaPlane& earlier, const LumaPlane& later)
{
    const int width = later.width() / 2;
    const int height = later.height() / 2;
    if (width > kCoarseMaxWidth || height > kCoarseMaxHeight || width <= 4 * kCoarseRadius
        || height <= 2 * kCoarseRadius + 2) {
        return {};
    }
    CoarsePlane a{};
    CoarsePlane b{};
    halve(earlier, a, width, height);
    halve(later, b, width, height);
    unsigned best = std::numeric_limits<unsigned>::max();
    Shift found;
    for (int dy = -kCoarseRadius; dy <= kCoarseRadius; ++dy) {
        for (int dx = -kCoarseRadius; dx <= kCoarseRadius; ++dx) {
            unsigned sum = 0;
            for (int y = kCoarseRadius; y < height - kCoarseRadius && sum <= best; ++y) {
                const std::uint8_t* rowA = a.data() + (y + dy) * width + dx;
                const std::uint8_t* rowB = b.data() + y * width;
                for (int x = kCoarseRadius; x < width - kCoarseRadius; ++x) {
                    sum += static_cast<unsigned>(std::abs(int{rowA[x]} - int{rowB[x]}));
                }
            }
            if (sum < best
                || (sum == best
                    && std::abs(dx) + std::abs(dy) < std::abs(found.dx) + std::abs(found.dy))) {
                best = sum;
                found = {dx, dy};
            }
        }
    }
    return {2 * found.dx, 2 * found.dy};
}

}  // namespace

MotionResidual motionResidual(const LumaPlane& earlier, const LumaPlane& later, Shift hint)
{
    const int width = later.width();
    const int height = later.height();
    const int columns = width / kMotionBlockWidth;
    const int rows = height / kMotionBlockHeight;
    if (earlier.width() != width || earlier.height() != height || columns < 1 || rows < 1) {
        return {};
    }
    // Blocks fill the plane from the top left; with more than kMaxBlocks, a centred grid of them.
    const int usedColumns = std::min(columns, 8);
    const int usedRows = std::min(rows, kMaxBlocks / usedColumns);
    const int left = (width - usedColumns * kMotionBlockWidth) / 2;
    const int top = (height - usedRows * kMotionBlockHeight) / 2;
    const std::ptrdiff_t stride = width;
    std::array<float, kMaxBlocks> residuals{};
    std::array<int, kMaxBlocks> shiftsX{};
    std::array<int, kMaxBlocks> shiftsY{};
    int blocks = 0;
    constexpr int kRadius = kMotionSearchRadius;
    constexpr int kHintRadius = 2;
    // Besides no motion, around the caller's hint and the picture's own global motion.
    const Shift global = globalMotion(earlier, later);
    std::array<Shift, 2> centres{hint, global};
    const auto beyondSearch = [](Shift centre) {
        return std::abs(centre.dx) > kRadius - kHintRadius
               || std::abs(centre.dy) > kRadius - kHintRadius;
    };
    for (int by = 0; by < usedRows; ++by) {
        for (int bx = 0; bx < usedColumns; ++bx) {
            const int x = left + bx * kMotionBlockWidth;
            const int y = top + by * kMotionBlockHeight;
            const std::uint8_t* block = later.bytes().data() + y * stride + x;
            unsigned best = std::numeric_limits<unsigned>::max();
            Shift bestShift;
            const auto tryShift = [&](int dx, int dy) {
                if (x + dx < 0 || y + dy < 0 || x + dx + kMotionBlockWidth > width
                    || y + dy + kMotionBlockHeight > height) {
                    return;
                }
                const unsigned sum = blockDifference(
                    earlier.bytes().data() + y * stride + x, block, stride, dy * stride + dx, best);
                // The smaller displacement wins a tie, so still pictures keep no motion.
                if (sum < best
                    || (sum == best
                        && std::abs(dx) + std::abs(dy)
                               < std::abs(bestShift.dx) + std::abs(bestShift.dy))) {
                    best = sum;
                    bestShift = {dx, dy};
                }
            };
            for (int dy = -kRadius; dy <= kRadius; ++dy) {
                for (int dx = -kRadius; dx <= kRadius; ++dx) {
                    tryShift(dx, dy);
                }
            }
            for (std::size_t c = 0; c < centres.size(); ++c) {
                const Shift centre = centres[c];
                if (!beyondSearch(centre) || (c == 1 && centre == centres[0])) {
                    continue;
                }
                for (int dy = centre.dy - kHintRadius; dy <= centre.dy + kHintRadius; ++dy) {
                    for (int dx = centre.dx - kHintRadius; dx <= centre.dx + kHintRadius; ++dx) {
                        if (std::abs(dx) > kRadius || std::abs(dy) > kRadius) {
                            tryShift(dx, dy);
                        }
                    }
                }
            }
            residuals[static_cast<std::size_t>(blocks)] =
                static_cast<float>(best)
                / static_cast<float>(kMotionBlockWidth * kMotionBlockHeight);
            shiftsX[static_cast<std::size_t>(blocks)] = bestShift.dx;
            shiftsY[static_cast<std::size_t>(blocks)] = bestShift.dy;
            ++blocks;
        }
    }
    const auto count = static_cast<std::size_t>(blocks);
    MotionResidual result;
    float sum = 0.0F;
    for (std::size_t i = 0; i < count; ++i) {
        sum += residuals[i];
    }
    result.mean = sum / static_cast<float>(count);
    result.median = detail::medianOf(std::span(residuals.data(), count));
    result.motion = {detail::upperMedianOf(std::span(shiftsX.data(), count)),
                     detail::upperMedianOf(std::span(shiftsY.data(), count))};
    return result;
}

LumaMoments lumaMoments(const LumaPlane& plane)
{
    if (plane.size() == 0) {
        return {};
    }
    std::uint64_t sum = 0;
    std::uint64_t squares = 0;
    for (const std::uint8_t value : plane.bytes()) {
        sum += value;
        squares += std::uint64_t{value} * value;
    }
    const double count = static_cast<double>(plane.size());
    const double mean = static_cast<double>(sum) / count;
    const double variance = std::max(static_cast<double>(squares) / count - mean * mean, 0.0);
    return {static_cast<float>(mean), static_cast<float>(std::sqrt(variance))};
}

void matchLuma(const LumaPlane& source, LumaMoments from, LumaMoments to, LumaPlane& out)
{
    if (out.width() != source.width() || out.height() != source.height()) {
        out = LumaPlane(source.width(), source.height());
    }
    constexpr float kMinimumDeviation = 1.0F;
    const float gain =
        std::clamp(to.deviation / std::max(from.deviation, kMinimumDeviation), 0.5F, 2.0F);
    const float offset = to.mean - gain * from.mean;
    std::array<std::uint8_t, 256> table{};
    for (std::size_t value = 0; value < table.size(); ++value) {
        table[value] = static_cast<std::uint8_t>(
            std::clamp(std::lround(gain * static_cast<float>(value) + offset), 0L, 255L));
    }
    const auto in = source.bytes();
    const auto result = out.bytes();
    for (std::size_t i = 0; i < in.size(); ++i) {
        result[i] = table[in[i]];
    }
}

float lumaCorrelation(const LumaPlane& a, const LumaPlane& b)
{
    if (a.width() != b.width() || a.height() != b.height() || a.size() == 0) {
        return 0.0F;
    }
    std::int64_t sumA = 0;
    std::int64_t sumB = 0;
    std::int64_t sumAA = 0;
    std::int64_t sumBB = 0;
    std::int64_t sumAB = 0;
    const auto x = a.bytes();
    const auto y = b.bytes();
    for (std::size_t i = 0; i < x.size(); ++i) {
        const std::int64_t p = x[i];
        const std::int64_t q = y[i];
        sumA += p;
        sumB += q;
        sumAA += p * p;
        sumBB += q * q;
        sumAB += p * q;
    }
    const auto n = static_cast<double>(x.size());
    const double covariance =
        static_cast<double>(sumAB) - static_cast<double>(sumA) * static_cast<double>(sumB) / n;
    const double varianceA =
        static_cast<double>(sumAA) - static_cast<double>(sumA) * static_cast<double>(sumA) / n;
    const double varianceB =
        static_cast<double>(sumBB) - static_cast<double>(sumB) * static_cast<double>(sumB) / n;
    if (varianceA <= 0.0 || varianceB <= 0.0) {
        return 0.0F;
    }
    return static_cast<float>(covariance / std::sqrt(varianceA * varianceB));
}

}  // namespace kestrin::scan
