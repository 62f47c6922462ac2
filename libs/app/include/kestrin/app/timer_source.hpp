#pragma once

#include <chrono>
#include <functional>
#include <memory>

namespace kestrin::app {

/// A restartable single-shot timer of the interface thread, as a debounce needs it.
class OneShotTimer
{
public:
    virtual ~OneShotTimer() = default;
    OneShotTimer(const OneShotTimer&) = delete;
    OneShotTimer& operator=(const OneShotTimer&) = delete;
    OneShotTimer(OneShotTimer&&) = delete;
    OneShotTimer& operator=(OneShotTimer&&) = delete;

    /// Starts the countdown afresh: the timer fires once, `interval` from now, unless it is
    /// started again or stopped before.
    virtual void start(std::chrono::milliseconds interval) = 0;
    /// Cancels a pending countdown; no effect when none is pending.
    virtual void stop() = 0;

protected:
    OneShotTimer() = default;
};

/// Makes the timers of the view model's timecode validation. The default one runs on QTimer; a
/// test gives one whose clock it steps by hand, so nothing waits for real time.
class TimerSource
{
public:
    virtual ~TimerSource() = default;
    TimerSource(const TimerSource&) = delete;
    TimerSource& operator=(const TimerSource&) = delete;
    TimerSource(TimerSource&&) = delete;
    TimerSource& operator=(TimerSource&&) = delete;

    /// A stopped timer that calls `onTimeout` on the interface thread each time it fires.
    /// Destroying the timer stops it; the source must outlive its timers.
    [[nodiscard]] virtual std::unique_ptr<OneShotTimer> makeTimer(
        std::function<void()> onTimeout) = 0;

protected:
    TimerSource() = default;
};

/// The QTimer-based source: each timer is a single-shot QTimer of the calling thread, which must
/// run a Qt event loop.
[[nodiscard]] std::shared_ptr<TimerSource> makeQtTimerSource();

}  // namespace kestrin::app
