#include <kestrin/core/frame_rate.hpp>

#include <gtest/gtest.h>

#include <cmath>

namespace kestrin::core {
namespace {

TEST(FrameRate, SnapsToTheNearestStandardRateTiesToTheEarlier)
{
    const std::pair<float, FrameRate> rows[] = {
        {23.98F, kFps23976},
        {24.5F, kFps24},
        {29.9F, kFps2997},
        {40.0F, kFps30},
        {45.0F, kFps50},
        {55.0F, kFps5994},
        {1000.0F, kFps60},
        {0.5F, kFps23976},
        {-30.0F, kFps23976},
        {std::nanf(""), kFps23976},
    };
    for (const auto& [fps, snapped] : rows) {
        EXPECT_EQ(standardFrameRate(fps), snapped) << fps;
    }
    for (const StandardFrameRate& row : kStandardFrameRates) {
        EXPECT_EQ(standardFrameRate(row.nominal), row.rate) << row.label;
        EXPECT_EQ(standardFrameRateRow(row.rate)->label, row.label);
    }
    EXPECT_FALSE(standardFrameRateRow(FrameRate{15, 1}));
}

TEST(FrameRate, TimecodeBaseAndDropFrameFollowTheExactRate)
{
    struct Row
    {
        FrameRate rate;
        int base;
        bool dropFrame;
    };
    const Row rows[] = {
        {kFps23976, 24, false},
        {kFps24, 24, false},
        {kFps25, 25, false},
        {kFps2997, 30, true},
        {kFps30, 30, false},
        {kFps50, 50, false},
        {kFps5994, 60, true},
        {kFps60, 60, false},
        {{15, 1}, 15, false},
        {{0, 1}, 0, false},
        {{-25, 1}, 0, false},
        {{25, 0}, 0, false},
        {{INT64_MAX, 1}, INT_MAX, false},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(row.rate.timecodeBase(), row.base)
            << row.rate.numerator << "/" << row.rate.denominator;
        EXPECT_EQ(row.rate.allowsDropFrame(), row.dropFrame)
            << row.rate.numerator << "/" << row.rate.denominator;
    }
    EXPECT_DOUBLE_EQ(kFps2997.framesPerSecond(), 30000.0 / 1001.0);
}

}  // namespace
}  // namespace kestrin::core
