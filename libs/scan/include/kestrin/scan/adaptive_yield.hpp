#pragma once

#include <chrono>
#include <cstdint>
#include <functional>

namespace kestrin::scan {

/// Paces cooperative yields in a long per-frame loop. Ticked once per loop step, it keeps a moving
/// average of the step length and yields only when a budget has passed since its last yield; the
/// budget grows with the average, so expensive steps are interrupted less often:
///
///     average step        budget
///     below 150 us        minBudget (2 ms)
///     below 400 us        midway between the two (3 ms)
///     400 us and above    maxBudget (4 ms)
///
/// The average weighs the newest step 1/8 and the history 7/8, in integer nanoseconds, starting
/// from 0 (so the first ticks see the smallest budget).
///
/// A pacer belongs to one loop on one thread; it is not thread-safe and holds no resources.
class AdaptiveYield
{
public:
    using Clock = std::chrono::steady_clock;
    using Instant = Clock::time_point;
    /// Reads the monotonic clock; injectable so tests step time by hand.
    using NowFunction = std::function<Instant()>;
    /// Gives way to other work once.
    using YieldFunction = std::function<void()>;

    static constexpr std::chrono::nanoseconds kMinBudget = std::chrono::milliseconds(2);
    static constexpr std::chrono::nanoseconds kMaxBudget = std::chrono::milliseconds(4);

    /// The pacer the detectors use: the steady clock, std::this_thread::yield, 2 ms and 4 ms.
    AdaptiveYield();

    /// A pacer on the given clock and yield action; the average starts at 0 and both the last tick
    /// and the last yield at the clock's current instant.
    AdaptiveYield(NowFunction now,
                  YieldFunction yieldAction,
                  std::chrono::nanoseconds minBudget = kMinBudget,
                  std::chrono::nanoseconds maxBudget = kMaxBudget);

    /// One loop step: updates the average and yields (calls the yield action once) when the budget
    /// has passed since the last yield. A step of a second or more enters the average with its
    /// sub-second part only.
    void tick();

    [[nodiscard]] std::uint64_t ewmaNs() const { return ewmaNs_; }
    [[nodiscard]] Instant lastTick() const { return lastTick_; }
    [[nodiscard]] Instant lastYield() const { return lastYield_; }

private:
    NowFunction now_;
    YieldFunction yield_;
    std::uint64_t ewmaNs_ = 0;
    Instant lastTick_;
    Instant lastYield_;
    std::chrono::nanoseconds minBudget_;
    std::chrono::nanoseconds maxBudget_;
};

}  // namespace kestrin::scan
