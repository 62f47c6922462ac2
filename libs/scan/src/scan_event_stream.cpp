#include <kestrin/scan/scan_event_stream.hpp>

#include <algorithm>
#include <cmath>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>

namespace kestrin::scan {

struct detail::EventStreamState
{
    std::mutex mutex;
    // Signalled when an event arrives or the stream is finished.
    std::condition_variable_any changed;
    // Guarded by mutex: oldest first, never more than kCapacity.
    std::deque<core::ProgressEvent> held;
    // Guarded by mutex.
    bool isFinished = false;
    // Guarded by mutex.
    std::int64_t dropped = 0;
    // Guarded by mutex; called outside it.
    std::function<void()> wake;
};

namespace {

double limitFraction(double fraction)
{
    if (std::isnan(fraction)) {
        return 0.0;
    }
    return std::max(std::min(fraction, 1.0), 0.0);
}

}  // namespace

ScanEventStream::ScanEventStream()
    : state_(std::make_unique<detail::EventStreamState>())
{}

ScanEventStream::~ScanEventStream() = default;

bool ScanEventStream::push(const core::ProgressEvent& event)
{
    std::function<void()> wake;
    {
        const std::scoped_lock lock(state_->mutex);
        if (state_->isFinished) {
            return false;
        }
        if (state_->held.size() >= kCapacity) {
            ++state_->dropped;
            return false;
        }
        state_->held.push_back(event);
        wake = state_->wake;
    }
    state_->changed.notify_all();
    if (wake) {
        wake();
    }
    return true;
}

bool ScanEventStream::reportProgress(double fraction)
{
    return push(core::ProgressEvent::progress(limitFraction(fraction)));
}

bool ScanEventStream::reportMode(core::ScanMode mode)
{
    return push(core::ProgressEvent::mode(mode));
}

void ScanEventStream::finishEvents(std::optional<double> finalFraction)
{
    if (finalFraction) {
        reportProgress(*finalFraction);
    }
    finish();
}

void ScanEventStream::finish()
{
    std::function<void()> wake;
    {
        const std::scoped_lock lock(state_->mutex);
        if (state_->isFinished) {
            return;
        }
        state_->isFinished = true;
        wake = state_->wake;
    }
    state_->changed.notify_all();
    if (wake) {
        wake();
    }
}

void ScanEventStream::setWake(std::function<void()> wake)
{
    bool isDue = false;
    {
        const std::scoped_lock lock(state_->mutex);
        state_->wake = wake;
        isDue = !state_->held.empty() || state_->isFinished;
    }
    if (wake && isDue) {
        wake();
    }
}

std::optional<core::ProgressEvent> ScanEventStream::next(const std::stop_token& stopToken)
{
    std::unique_lock lock(state_->mutex);
    state_->changed.wait(
        lock, stopToken, [this] { return !state_->held.empty() || state_->isFinished; });
    if (stopToken.stop_requested() || state_->held.empty()) {
        return std::nullopt;
    }
    const core::ProgressEvent event = state_->held.front();
    state_->held.pop_front();
    return event;
}

std::optional<core::ProgressEvent> ScanEventStream::tryNext()
{
    const std::scoped_lock lock(state_->mutex);
    if (state_->held.empty()) {
        return std::nullopt;
    }
    const core::ProgressEvent event = state_->held.front();
    state_->held.pop_front();
    return event;
}

bool ScanEventStream::hasEnded() const
{
    const std::scoped_lock lock(state_->mutex);
    return state_->isFinished && state_->held.empty();
}

bool ScanEventStream::isFinished() const
{
    const std::scoped_lock lock(state_->mutex);
    return state_->isFinished;
}

std::int64_t ScanEventStream::droppedCount() const
{
    const std::scoped_lock lock(state_->mutex);
    return state_->dropped;
}

}  // namespace kestrin::scan
