#include <kestrin/core/edit_marker.hpp>
#include <kestrin/core/sync_sample.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>
#include <unordered_set>
#include <vector>

namespace kestrin::core {
namespace {

TEST(EditMarker, EqualityUsesExactTimeAndFloatConfidence)
{
    const EditMarker a{12, MediaTime::make(1001, 30000), std::nullopt};
    const EditMarker b{12, MediaTime::make(2002, 60000), std::nullopt};
    EXPECT_EQ(a, b);
    EXPECT_FALSE(a < b);
    EXPECT_FALSE(b < a);
    EXPECT_EQ(a.hashValue(), b.hashValue());

    EXPECT_NE(a, (EditMarker{13, a.time, std::nullopt}));
    EXPECT_EQ((EditMarker{1, a.time, -0.0F}), (EditMarker{1, a.time, 0.0F}));
    EXPECT_EQ((EditMarker{1, a.time, -0.0F}).hashValue(),
              (EditMarker{1, a.time, 0.0F}).hashValue());
    const float nan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_NE((EditMarker{1, a.time, nan}), (EditMarker{1, a.time, nan}));
}

TEST(EditMarker, ConfidenceTakesNoPartInOrder)
{
    const EditMarker with{4, MediaTime::make(4, 25), 0.5F};
    const EditMarker without{4, MediaTime::make(4, 25), std::nullopt};
    EXPECT_NE(with, without);
    EXPECT_FALSE(with < without);
    EXPECT_FALSE(without < with);
    EXPECT_TRUE(with <= without);
    EXPECT_TRUE(with >= without);
}

TEST(EditMarker, OrderedByTimeThenFrameIndex)
{
    const EditMarker early{90, MediaTime::make(1, 1), std::nullopt};
    const EditMarker sameTimeLowIndex{5, MediaTime::make(2, 1), std::nullopt};
    const EditMarker sameTimeHighIndex{6, MediaTime::make(600, 300), std::nullopt};
    std::vector<EditMarker> markers{sameTimeHighIndex, sameTimeLowIndex, early};
    std::sort(markers.begin(), markers.end());
    EXPECT_EQ(markers, (std::vector<EditMarker>{early, sameTimeLowIndex, sameTimeHighIndex}));
    EXPECT_TRUE(sameTimeHighIndex > early);
}

TEST(SyncSample, OrderedBySecondsThenIndex)
{
    const SyncSample oneSecond600{7, MediaTime::make(600, 600), std::nullopt};
    const SyncSample oneSecond90k{3, MediaTime::make(90000, 90000), std::nullopt};
    EXPECT_TRUE(oneSecond90k < oneSecond600);
    EXPECT_FALSE(oneSecond600 < oneSecond90k);

    const SyncSample twoSeconds{1, MediaTime::make(2, 1), std::nullopt};
    EXPECT_TRUE(oneSecond600 < twoSeconds);

    // Times that differ by less than a double can show are ordered by index.
    const SyncSample later{0, MediaTime::make(9007199254740993, 1), std::nullopt};
    const SyncSample earlier{1, MediaTime::make(9007199254740992, 1), std::nullopt};
    EXPECT_TRUE(later < earlier);
    EXPECT_FALSE(earlier < later);

    const SyncSample invalidHigh{9, MediaTime::invalid(), std::nullopt};
    const SyncSample invalidLow{2, MediaTime::invalid(), std::nullopt};
    EXPECT_TRUE(invalidLow < invalidHigh);
    EXPECT_TRUE(invalidLow < oneSecond600);  // a non-finite side falls back to the index
    EXPECT_TRUE(oneSecond600 < invalidHigh);
}

TEST(SyncSample, EqualityAndHashIncludeDuration)
{
    const SyncSample bare{4, MediaTime::make(4, 25), std::nullopt};
    const SyncSample timed{4, MediaTime::make(4, 25), MediaTime::make(1, 25)};
    EXPECT_NE(bare, timed);
    EXPECT_EQ(timed, (SyncSample{4, MediaTime::make(160, 1000), MediaTime::make(40, 1000)}));

    const std::unordered_set<SyncSample> samples{
        bare, timed, SyncSample{4, MediaTime::make(160, 1000), MediaTime::make(40, 1000)}};
    EXPECT_EQ(samples.size(), 2U);
}

}  // namespace
}  // namespace kestrin::core
