// The public median and robust sigma are tested with detection; these are the cases only the
// internal helpers have: the upper median that motion shifts take (a shift that is one of the
// blocks' own, never half-way between two), and differences of thumbnails of unequal length.

#include "../src/robust_statistics.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <span>
#include <vector>

namespace kestrin::scan::detail {
namespace {

TEST(RobustStatistics, EvenCountsAverageOrTakeTheUpperMiddle)
{
    std::vector<int> shifts{-3, 4, 1, 0};
    EXPECT_EQ(upperMedianOf(std::span(shifts)), 1);
    std::vector<double> values{4.0, 1.0, 3.0, 2.0};
    EXPECT_EQ(medianOf(std::span(values)), 2.5);
    EXPECT_EQ(medianAbsoluteDeviation(values, 2.5), 1.0);
    std::vector<int> none;
    EXPECT_EQ(upperMedianOf(std::span(none)), 0);
}

TEST(RobustStatistics, MeanAbsoluteDifferenceOverTheSharedBytes)
{
    const std::vector<std::uint8_t> a{0, 255, 10};
    const std::vector<std::uint8_t> b{255, 0};
    EXPECT_EQ(meanAbsoluteDifference<double>(a, b), 255.0);
    EXPECT_EQ(meanAbsoluteDifference<float>(a, std::span<const std::uint8_t>()), 0.0F);
}

}  // namespace
}  // namespace kestrin::scan::detail
