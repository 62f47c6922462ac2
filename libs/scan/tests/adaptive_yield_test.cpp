#include <kestrin/scan/adaptive_yield.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

namespace kestrin::scan {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

// A clock that only moves when the test moves it; records which ticks (1-based) yielded.
struct PacerHarness
{
    AdaptiveYield::Instant now{nanoseconds(1'000'000'000'000)};
    int ticks = 0;
    std::vector<int> yieldedAt;
    AdaptiveYield pacer{[this] { return now; },
                        [this] {
                            yieldedAt.push_back(ticks);
                        }};

    std::vector<int> run(nanoseconds step, int count)
    {
        yieldedAt.clear();
        for (int i = 0; i < count; ++i) {
            now += step;
            ++ticks;
            pacer.tick();
        }
        return yieldedAt;
    }
};

TEST(AdaptiveYield, FirstYieldComesWhenTheBudgetHasPassed)
{
    PacerHarness cheapSteps;
    const auto start = cheapSteps.now;
    EXPECT_TRUE(cheapSteps.run(microseconds(100), 19).empty());
    EXPECT_EQ(cheapSteps.pacer.lastTick(), cheapSteps.now);                 // moves on every tick
    EXPECT_EQ(cheapSteps.pacer.lastYield(), start);                         // only on a yield
    EXPECT_EQ(cheapSteps.run(microseconds(100), 1), std::vector<int>{20});  // 2 ms in
    EXPECT_EQ(cheapSteps.pacer.lastYield(), cheapSteps.now);

    EXPECT_TRUE(PacerHarness{}.run(milliseconds(1), 1).empty());
    // One 2 ms step already lifts the average into the 3 ms budget.
    EXPECT_TRUE(PacerHarness{}.run(milliseconds(2), 1).empty());
    EXPECT_EQ(PacerHarness{}.run(milliseconds(4), 1), std::vector<int>{1});
}

TEST(AdaptiveYield, AverageMovesAnEighthPerTickAndIgnoresWholeSeconds)
{
    PacerHarness harness;
    harness.run(milliseconds(1), 1);
    EXPECT_EQ(harness.pacer.ewmaNs(), 125'000U);
    harness.run(milliseconds(1), 1);
    EXPECT_EQ(harness.pacer.ewmaNs(), 234'375U);

    PacerHarness stalled;
    stalled.run(milliseconds(1500), 1);
    EXPECT_EQ(stalled.pacer.ewmaNs(), 500'000'000U / 8);
}

TEST(AdaptiveYield, SettledStepsYieldAtTheirBudget)
{
    struct Row
    {
        nanoseconds step;
        int ticksBetweenYields;
    };
    for (const Row row : {Row{microseconds(100), 20},  // 2 ms budget
                          Row{microseconds(300), 10},  // 3 ms budget
                          Row{milliseconds(1), 4}}) {  // 4 ms budget
        PacerHarness harness;
        harness.run(row.step, 200);  // let the average settle
        const std::vector<int> yields = harness.run(row.step, 400);
        ASSERT_GE(yields.size(), 3U);
        for (std::size_t i = 1; i < yields.size(); ++i) {
            EXPECT_EQ(yields[i] - yields[i - 1], row.ticksBetweenYields)
                << row.step.count() << " ns";
        }
    }
}

}  // namespace
}  // namespace kestrin::scan
