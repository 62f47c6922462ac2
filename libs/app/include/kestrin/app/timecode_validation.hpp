#pragma once

#include <kestrin/app/export_rules.hpp>
#include <kestrin/app/timer_source.hpp>
#include <kestrin/core/frame_rate.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace kestrin::app {

/// Whether the numeric characters of `text` name a timecode at `rate`, counted drop-frame when
/// effectiveDropFrame(rate, dropFrame) says so. Other characters are ignored.
[[nodiscard]] bool isValidTimecode(std::string_view text,
                                   core::FrameRate rate,
                                   const DropFrameSources& dropFrame);

/// Keeps one timecode's validity flag in step with its four inputs: the digit text, the rate and
/// the two drop-frame sources.
///
/// The digit text is debounced: each change restarts a quiet period, and only a text left alone
/// for the whole period is passed on, unless it equals the text passed on before. The other inputs
/// pass on each change at once; a value equal to that input's previous one is dropped. Once the
/// text has been passed on for the first time (one quiet period after construction), every
/// passed-on value makes a new validity, computed from the latest four values and handed to
/// `deliver`.
///
/// Interface thread only: the owner feeds it the changes, the timer fires there, and `deliver` is
/// called there, synchronously (an owner that wants the flag stored on the next turn of its loop
/// posts it from `deliver`).
class TimecodeValidation
{
public:
    using Deliver = std::function<void(bool isValid)>;

    /// Starts with the current values of the four inputs; the first quiet period for `digits`
    /// starts now. `timers` must outlive this object.
    TimecodeValidation(TimerSource& timers,
                       std::chrono::milliseconds quietPeriod,
                       std::string digits,
                       core::FrameRate rate,
                       DropFrameSources dropFrame,
                       Deliver deliver);

    /// The text as typed; restarts the quiet period.
    void digitsChanged(std::string digits);
    void rateChanged(core::FrameRate rate);
    void detectedIsDropFrameChanged(std::optional<bool> detected);
    void userPrefersDropFrameChanged(std::optional<bool> preferred);

private:
    void digitsSettled();
    void deliverIfComplete();

    // Interface thread only.
    std::chrono::milliseconds quietPeriod_;
    std::string typedDigits_;
    // Absent until the first quiet period has ended.
    std::optional<std::string> settledDigits_;
    core::FrameRate rate_;
    DropFrameSources dropFrame_;
    Deliver deliver_;
    std::unique_ptr<OneShotTimer> timer_;
};

}  // namespace kestrin::app
