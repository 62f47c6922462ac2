#pragma once

#include <kestrin/core/progress_event.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>

namespace kestrin::scan {

namespace detail {
struct EventStreamState;
}  // namespace detail

/// The events of one scan on their way from the scan's worker thread to one consumer.
///
/// Bounded, keeping the oldest: at most kCapacity undelivered events are held; an event offered
/// while kCapacity wait is dropped (the held ones stay) and counted in droppedCount(). Once
/// finished, the stream accepts nothing more, but still hands out the events it holds; it has
/// ended when it is finished and empty.
///
/// Either side may finish it: the scan does so on every exit path, and a consumer that loses
/// interest may do so to make the scan's further events no-ops. Finishing twice has no effect.
///
/// Thread-safe: every call may be made from any thread. Meant for one consumer; with several,
/// each event goes to exactly one of them.
class ScanEventStream
{
public:
    static constexpr std::size_t kCapacity = 8;

    ScanEventStream();
    ~ScanEventStream();
    ScanEventStream(const ScanEventStream&) = delete;
    ScanEventStream& operator=(const ScanEventStream&) = delete;
    ScanEventStream(ScanEventStream&&) = delete;
    ScanEventStream& operator=(ScanEventStream&&) = delete;

    // Producer side.

    /// Offers `event`. Returns true when it is held for the consumer; false when it is dropped
    /// because kCapacity events wait (counted in droppedCount()) or because the stream is finished
    /// (not counted). Wakes a consumer blocked in next(). Never blocks on the consumer.
    bool push(const core::ProgressEvent& event);

    /// Offers progress(c), with c = `fraction` limited to [0, 1] (NaN counts as 0). Returns as
    /// push() does.
    bool reportProgress(double fraction);

    /// Offers mode(`mode`). Returns as push() does.
    bool reportMode(core::ScanMode mode);

    /// Ends the scan's events: when `finalFraction` is given, first offers progress(c) as
    /// reportProgress() does (so it is lost when kCapacity events wait); then, in every case,
    /// finishes the stream.
    void finishEvents(std::optional<double> finalFraction = std::nullopt);

    // Either side.

    /// Finishes the stream: later events are dropped; held events stay for the consumer. Wakes a
    /// consumer blocked in next(), which then drains the held events and sees the end. No effect
    /// when already finished.
    void finish();

    // Consumer side.

    /// Takes the oldest held event, blocking while there is none and the stream is not finished.
    /// Returns:
    ///   - the event, as soon as one is held (held events are handed out even after the finish);
    ///   - nothing when the stream has ended (finished with nothing held);
    ///   - nothing when `stopToken` is stopped, before or during the wait; held events then stay.
    [[nodiscard]] std::optional<core::ProgressEvent> next(const std::stop_token& stopToken = {});

    /// Takes the oldest held event without blocking, for a consumer that must not block (an
    /// interface thread). Returns nothing when none is held; hasEnded() then tells whether one may
    /// still come.
    [[nodiscard]] std::optional<core::ProgressEvent> tryNext();

    /// For a consumer that drains with tryNext() instead of waiting in next(): calls `wake` after
    /// every event the stream comes to hold and after it is finished, on the thread that caused
    /// it, and once at once when the stream already holds events or is finished. Replaces the
    /// previous one (a call of it already under way on another thread may still finish); an
    /// empty `wake` removes it. `wake` must return promptly, as it delays the scan's thread.
    void setWake(std::function<void()> wake);

    /// Whether the stream is finished and holds nothing: no event will ever come.
    [[nodiscard]] bool hasEnded() const;

    /// Whether the stream is finished (it may still hold events).
    [[nodiscard]] bool isFinished() const;

    /// Events dropped so far because kCapacity events were waiting.
    [[nodiscard]] std::int64_t droppedCount() const;

private:
    std::unique_ptr<detail::EventStreamState> state_;
};

}  // namespace kestrin::scan
