#include <kestrin/scan/adaptive_yield.hpp>

#include <gtest/gtest.h>

#include <chrono>
#include <vector>

namespace kestrin::scan {
namespace {

using std::chrono::microseconds;
using std::chrono::milliseconds;
using std::chrono::nanoseconds;

// A clock that only moves when the test moves it, and a record of the ticks that yielded.
class PacerHarness
{
public:
    PacerHarness()
        : pacer_([this] { return now_; }, [this] { yieldedAt_.push_back(tickCount_); })
    {}

    /// Advances the clock by `step`, then ticks once.
    void step(nanoseconds step)
    {
        now_ += step;
        ++tickCount_;
        pacer_.tick();
    }
    /// Ticks `count` times, `step` apart, and returns the ticks (1-based) that yielded.
    std::vector<int> run(nanoseconds step, int count)
    {
        yieldedAt_.clear();
        for (int i = 0; i < count; ++i) {
            this->step(step);
        }
        return yieldedAt_;
    }

    [[nodiscard]] const AdaptiveYield& pacer() const { return pacer_; }
    [[nodiscard]] AdaptiveYield::Instant now() const { return now_; }
    [[nodiscard]] int tickCount() const { return tickCount_; }

private:
    AdaptiveYield::Instant now_{nanoseconds(1'000'000'000'000)};
    int tickCount_ = 0;
    std::vector<int> yieldedAt_;
    AdaptiveYield pacer_;
};

std::vector<int> gaps(const std::vector<int>& ticks)
{
    std::vector<int> result;
    for (std::size_t i = 1; i < ticks.size(); ++i) {
        result.push_back(ticks[i] - ticks[i - 1]);
    }
    return result;
}

TEST(AdaptiveYield, FirstYieldComesWhenTheBudgetHasPassed)
{
    PacerHarness cheapSteps;
    EXPECT_EQ(cheapSteps.run(microseconds(100), 20), std::vector<int>{20});  // 2 ms in

    PacerHarness oneMillisecond;
    EXPECT_TRUE(oneMillisecond.run(milliseconds(1), 1).empty());
    // One 2 ms step already lifts the average into the 3 ms budget.
    PacerHarness twoMilliseconds;
    EXPECT_TRUE(twoMilliseconds.run(milliseconds(2), 1).empty());
    PacerHarness fourMilliseconds;
    EXPECT_EQ(fourMilliseconds.run(milliseconds(4), 1), std::vector<int>{1});
}

TEST(AdaptiveYield, AverageMovesAnEighthPerTick)
{
    PacerHarness harness;
    harness.step(milliseconds(1));
    EXPECT_EQ(harness.pacer().ewmaNs(), 125'000U);
    harness.step(milliseconds(1));
    EXPECT_EQ(harness.pacer().ewmaNs(), 234'375U);
}

// Once the average has settled, the pacer yields every budget / step ticks.
struct CadenceRow
{
    nanoseconds step;
    int ticksBetweenYields;
};

class AdaptiveYieldCadence : public testing::TestWithParam<CadenceRow>
{};

TEST_P(AdaptiveYieldCadence, SettledStepsYieldAtTheirBudget)
{
    const CadenceRow row = GetParam();
    PacerHarness harness;
    harness.run(row.step, 200);  // let the average settle
    const std::vector<int> yields = harness.run(row.step, 400);
    ASSERT_GE(yields.size(), 3U);
    for (int gap : gaps(yields)) {
        EXPECT_EQ(gap, row.ticksBetweenYields) << "step " << row.step.count() << " ns";
    }
}

INSTANTIATE_TEST_SUITE_P(Budgets,
                         AdaptiveYieldCadence,
                         testing::Values(CadenceRow{microseconds(100), 20},  // 2 ms budget
                                         CadenceRow{microseconds(300), 10},  // 3 ms budget
                                         CadenceRow{milliseconds(1), 4}));   // 4 ms budget

TEST(AdaptiveYield, YieldMovesOnlyTheLastYield)
{
    PacerHarness harness;
    const AdaptiveYield::Instant start = harness.now();
    for (int i = 0; i < 19; ++i) {
        harness.step(microseconds(100));
        EXPECT_EQ(harness.pacer().lastTick(), harness.now());
        EXPECT_EQ(harness.pacer().lastYield(), start);
    }
    harness.step(microseconds(100));
    EXPECT_EQ(harness.pacer().lastYield(), harness.now());
    EXPECT_EQ(harness.pacer().lastTick(), harness.now());
}

TEST(AdaptiveYield, LongStepEntersWithItsSubSecondPart)
{
    PacerHarness harness;
    harness.step(milliseconds(1500));
    EXPECT_EQ(harness.pacer().ewmaNs(), 500'000'000U / 8);
}

}  // namespace
}  // namespace kestrin::scan
