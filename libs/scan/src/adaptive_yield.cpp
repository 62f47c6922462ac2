#include <kestrin/scan/adaptive_yield.hpp>

#include <thread>
#include <utility>

namespace kestrin::scan {
namespace {

// Thresholds on eight times the new average (s = n + 7 * old average), i.e. averages of 150 us
// and 400 us.
constexpr std::uint64_t kCheapSum = 1'200'000;
constexpr std::uint64_t kMiddleSum = 3'200'000;
constexpr std::int64_t kNanosecondsPerSecond = 1'000'000'000;

}  // namespace

AdaptiveYield::AdaptiveYield()
    : AdaptiveYield(&Clock::now, [] { std::this_thread::yield(); })
{}

AdaptiveYield::AdaptiveYield(NowFunction now,
                             YieldFunction yieldAction,
                             std::chrono::nanoseconds minBudget,
                             std::chrono::nanoseconds maxBudget)
    : now_(std::move(now))
    , yield_(std::move(yieldAction))
    , lastTick_(now_())
    , lastYield_(lastTick_)
    , minBudget_(minBudget)
    , maxBudget_(maxBudget)
{}

void AdaptiveYield::tick()
{
    const Instant now = now_();
    const std::int64_t elapsedNs = std::chrono::nanoseconds(now - lastTick_).count();
    lastTick_ = now;

    // Whole seconds stay out of the average: a per-frame loop never takes that long, and one
    // stall (a debugger, a suspended machine) should not inflate the budget for the rest of it.
    const auto stepNs =
        static_cast<std::uint64_t>(elapsedNs < 0 ? 0 : elapsedNs % kNanosecondsPerSecond);
    const std::uint64_t sum = stepNs + 7 * ewmaNs_;
    std::chrono::nanoseconds budget = maxBudget_;
    if (sum < kCheapSum) {
        budget = minBudget_;
    } else if (sum < kMiddleSum) {
        budget = (minBudget_ + maxBudget_) / 2;
    }
    ewmaNs_ = sum / 8;

    if (now - lastYield_ < budget) {
        return;
    }
    lastYield_ = now;
    yield_();
}

}  // namespace kestrin::scan
