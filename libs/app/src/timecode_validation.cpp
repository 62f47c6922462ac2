#include <kestrin/app/timecode_validation.hpp>
#include <kestrin/timecode/timecode.hpp>

#include <utility>

namespace kestrin::app {

bool isValidTimecode(std::string_view text, core::FrameRate rate, const DropFrameSources& dropFrame)
{
    const timecode::FrameCounting counting = effectiveDropFrame(rate, dropFrame)
                                                 ? timecode::FrameCounting::DropFrame
                                                 : timecode::FrameCounting::NonDrop;
    return timecode::isValidTimecodeDigits(timecode::numericOnly(text), counting, rate);
}

TimecodeValidation::TimecodeValidation(TimerSource& timers,
                                       std::chrono::milliseconds quietPeriod,
                                       std::string digits,
                                       core::FrameRate rate,
                                       DropFrameSources dropFrame,
                                       Deliver deliver)
    : quietPeriod_(quietPeriod)
    , typedDigits_(std::move(digits))
    , rate_(rate)
    , dropFrame_(dropFrame)
    , deliver_(std::move(deliver))
    , timer_(timers.makeTimer([this] { digitsSettled(); }))
{
    // The text present at construction counts as typed now, so the first validity arrives one
    // quiet period later.
    timer_->start(quietPeriod_);
}

void TimecodeValidation::digitsChanged(std::string digits)
{
    typedDigits_ = std::move(digits);
    timer_->start(quietPeriod_);
}

void TimecodeValidation::rateChanged(core::FrameRate rate)
{
    if (rate == rate_) {
        return;
    }
    rate_ = rate;
    deliverIfComplete();
}

void TimecodeValidation::detectedIsDropFrameChanged(std::optional<bool> detected)
{
    if (detected == dropFrame_.detectedIsDropFrame) {
        return;
    }
    dropFrame_.detectedIsDropFrame = detected;
    deliverIfComplete();
}

void TimecodeValidation::userPrefersDropFrameChanged(std::optional<bool> preferred)
{
    if (preferred == dropFrame_.userPrefersDropFrame) {
        return;
    }
    dropFrame_.userPrefersDropFrame = preferred;
    deliverIfComplete();
}

void TimecodeValidation::digitsSettled()
{
    if (settledDigits_ == typedDigits_) {
        return;
    }
    settledDigits_ = typedDigits_;
    deliverIfComplete();
}

void TimecodeValidation::deliverIfComplete()
{
    if (settledDigits_) {
        deliver_(isValidTimecode(*settledDigits_, rate_, dropFrame_));
    }
}

}  // namespace kestrin::app
