#include <kestrin/core/media_time.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <unordered_set>
#include <vector>

namespace kestrin::core {
namespace {

constexpr std::int64_t kMaxValue = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kMinValue = std::numeric_limits<std::int64_t>::min();
constexpr std::int32_t kMaxScale = std::numeric_limits<std::int32_t>::max();

// Times in ascending order; the inner lists hold times that compare equal to each other.
std::vector<std::vector<MediaTime>> ascendingGroups()
{
    return {
        {MediaTime::negativeInfinity(),
         MediaTime{5, 3, MediaTime::kValid | MediaTime::kNegativeInfinity, 0}},
        {MediaTime::make(kMinValue, 1)},
        {MediaTime::make(-1, 1), MediaTime::make(-600, 600)},
        {MediaTime::zero(), MediaTime::make(0, 90000)},
        {MediaTime::make(1, kMaxScale)},
        {MediaTime::make(1001, 30000), MediaTime::make(2002, 60000), MediaTime::make(3003, 90000)},
        {MediaTime::make(1, 2), MediaTime::make(300, 600)},
        // Differ by one unit in 2^63: beyond what a double can tell apart.
        {MediaTime::make(kMaxValue - 1, 1000000007)},
        {MediaTime::make(kMaxValue, 1000000007)},
        {MediaTime::make(kMaxValue, 1)},
        {MediaTime::indefinite()},
        {MediaTime::positiveInfinity()},
        {MediaTime::invalid(),
         MediaTime{7, 600, 0, 0},
         MediaTime{1, 0, MediaTime::kValid, 0},
         MediaTime{1, -600, MediaTime::kValid, 0}},
    };
}

TEST(MediaTimeCompare, OrdersEveryPairByExactValueAndKind)
{
    const auto groups = ascendingGroups();
    for (std::size_t i = 0; i < groups.size(); ++i) {
        for (std::size_t j = 0; j < groups.size(); ++j) {
            for (const MediaTime& a : groups[i]) {
                for (const MediaTime& b : groups[j]) {
                    const int expected = i < j ? -1 : (i > j ? 1 : 0);
                    const int actual = compare(a, b);
                    EXPECT_EQ((actual > 0) - (actual < 0), expected)
                        << "group " << i << " (" << a.value << "/" << a.timescale
                        << ") against group " << j << " (" << b.value << "/" << b.timescale << ")";
                    EXPECT_EQ(a == b, expected == 0);
                    EXPECT_EQ(a < b, expected < 0);
                    EXPECT_EQ(a >= b, expected >= 0);
                }
            }
        }
    }
}

TEST(MediaTimeCompare, ExactAcrossTimescalesWhereFloatsRound)
{
    // 9007199254740993 / 3 == 6004799503160662 / 2 exactly; as doubles the first numerator rounds.
    EXPECT_EQ(MediaTime::make(9007199254740993, 3), MediaTime::make(6004799503160662, 2));
    EXPECT_LT(MediaTime::make(9007199254740992, 3), MediaTime::make(6004799503160662, 2));
}

TEST(MediaTimeCompare, EpochOrdersBeforeValue)
{
    const MediaTime early{10, 1, MediaTime::kValid, 0};
    const MediaTime later{1, 1, MediaTime::kValid, 1};
    EXPECT_LT(early, later);
    EXPECT_NE(MediaTime::make(1, 1), later);
}

TEST(MediaTimeSeconds, FiniteAndNonFinite)
{
    EXPECT_DOUBLE_EQ(MediaTime::make(1001, 30000).seconds(), 1001.0 / 30000.0);
    EXPECT_TRUE(std::isnan(MediaTime::invalid().seconds()));
    EXPECT_TRUE(std::isnan(MediaTime::indefinite().seconds()));
    EXPECT_EQ(MediaTime::positiveInfinity().seconds(), std::numeric_limits<double>::infinity());
    EXPECT_EQ(MediaTime::negativeInfinity().seconds(), -std::numeric_limits<double>::infinity());
    EXPECT_FALSE(MediaTime::invalid().isValid());
    EXPECT_FALSE((MediaTime{1, 0, MediaTime::kValid, 0}.isValid()));
    EXPECT_TRUE(MediaTime::positiveInfinity().isValid());
    EXPECT_FALSE(MediaTime::positiveInfinity().isNumeric());
}

TEST(MediaTimeFromSeconds, NearestInPreferredTimescale)
{
    const MediaTime exact = MediaTime::fromSeconds(1.5, 600);
    EXPECT_EQ(exact.value, 900);
    EXPECT_EQ(exact.timescale, 600);
    EXPECT_EQ(exact.flags & MediaTime::kHasBeenRounded, 0U);

    const MediaTime rounded = MediaTime::fromSeconds(1.0 / 3.0, 1000);
    EXPECT_EQ(rounded.value, 333);
    EXPECT_NE(rounded.flags & MediaTime::kHasBeenRounded, 0U);
    EXPECT_EQ(MediaTime::fromSeconds(-2.5, 1).value, -3);  // halves away from zero

    EXPECT_FALSE(MediaTime::fromSeconds(std::nan(""), 600).isValid());
    EXPECT_FALSE(MediaTime::fromSeconds(1.0, 0).isValid());
    EXPECT_TRUE(MediaTime::fromSeconds(1e300, 600).isPositiveInfinity());
    EXPECT_TRUE(MediaTime::fromSeconds(-1e300, 600).isNegativeInfinity());
    EXPECT_TRUE(
        MediaTime::fromSeconds(-std::numeric_limits<double>::infinity(), 1).isNegativeInfinity());
}

TEST(MediaTimeArithmetic, ExactSumsAndDifferences)
{
    const MediaTime sum = MediaTime::make(1, 3) + MediaTime::make(1, 2);
    EXPECT_EQ(sum, MediaTime::make(5, 6));
    EXPECT_EQ(sum.timescale, 6);
    EXPECT_EQ(MediaTime::make(3003, 90000) - MediaTime::make(1001, 30000), MediaTime::zero());
    EXPECT_EQ(MediaTime::make(-5, 600) - MediaTime::make(5, 600), MediaTime::make(-1, 60));

    // No common timescale fits in 32 bits: the finer one is used and the result is flagged.
    const MediaTime coarse = MediaTime::make(1, kMaxScale) + MediaTime::make(1, kMaxScale - 1);
    EXPECT_EQ(coarse.timescale, kMaxScale);
    EXPECT_EQ(coarse.value, 2);
    EXPECT_NE(coarse.flags & MediaTime::kHasBeenRounded, 0U);
}

TEST(MediaTimeArithmetic, NonFiniteOperandsAndOverflow)
{
    const MediaTime one = MediaTime::make(1, 1);
    EXPECT_FALSE((MediaTime::invalid() + one).isValid());
    EXPECT_FALSE((one - MediaTime::invalid()).isValid());
    EXPECT_TRUE((MediaTime::indefinite() + one).isIndefinite());
    EXPECT_TRUE((MediaTime::positiveInfinity() + one).isPositiveInfinity());
    EXPECT_TRUE((one - MediaTime::positiveInfinity()).isNegativeInfinity());
    EXPECT_TRUE((MediaTime::positiveInfinity() + MediaTime::negativeInfinity()).isIndefinite());
    EXPECT_TRUE((MediaTime::positiveInfinity() - MediaTime::positiveInfinity()).isIndefinite());
    EXPECT_TRUE((MediaTime::make(kMaxValue, 1) + one).isPositiveInfinity());
    EXPECT_TRUE((MediaTime::make(kMinValue, 1) - one).isNegativeInfinity());
    EXPECT_FALSE((one + MediaTime{1, 1, MediaTime::kValid, 1}).isValid());  // different epochs
}

TEST(MediaTimeArithmetic, MultiplyByRatio)
{
    const MediaTime doubled = MediaTime::make(1001, 30000).multipliedByRatio(2, 1);
    EXPECT_EQ(doubled.value, 2002);
    EXPECT_EQ(doubled.timescale, 30000);

    const MediaTime third = MediaTime::make(1, 30000).multipliedByRatio(1, 3);
    EXPECT_EQ(third, MediaTime::make(1, 90000));
    EXPECT_EQ(third.flags & MediaTime::kHasBeenRounded, 0U);

    EXPECT_EQ(MediaTime::make(600, 600).multipliedByRatio(-3, 2), MediaTime::make(-3, 2));
    EXPECT_FALSE(MediaTime::make(1, 1).multipliedByRatio(1, 0).isValid());
    EXPECT_TRUE(MediaTime::positiveInfinity().multipliedByRatio(-1, 1).isNegativeInfinity());

    // 1/kMaxScale divided by 7 cannot be held exactly: rounded in the original timescale.
    const MediaTime tiny = MediaTime::make(10, kMaxScale).multipliedByRatio(1, 7);
    EXPECT_EQ(tiny.timescale, kMaxScale);
    EXPECT_EQ(tiny.value, 1);
    EXPECT_NE(tiny.flags & MediaTime::kHasBeenRounded, 0U);
    EXPECT_TRUE(MediaTime::make(kMaxValue, 1).multipliedByRatio(2, 1).isPositiveInfinity());
}

TEST(MediaTimeHash, EqualTimesHashAlike)
{
    EXPECT_EQ(MediaTime::make(1, 2).hashValue(), MediaTime::make(300, 600).hashValue());
    EXPECT_EQ(MediaTime::make(-1, 2).hashValue(), MediaTime::make(-300, 600).hashValue());
    EXPECT_EQ(MediaTime::invalid().hashValue(), (MediaTime{3, 0, 0, 0}.hashValue()));

    std::unordered_set<MediaTime> times{MediaTime::make(1001, 30000),
                                        MediaTime::make(2002, 60000),
                                        MediaTime::make(1, 30),
                                        MediaTime::zero(),
                                        MediaTime::make(0, 600)};
    EXPECT_EQ(times.size(), 3U);
}

}  // namespace
}  // namespace kestrin::core
