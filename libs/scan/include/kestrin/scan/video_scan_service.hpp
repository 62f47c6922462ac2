#pragma once

#include <kestrin/core/edit_marker.hpp>
#include <kestrin/core/error.hpp>
#include <kestrin/core/log.hpp>
#include <kestrin/media/asset.hpp>
#include <kestrin/scan/detector.hpp>
#include <kestrin/scan/frame_access.hpp>
#include <kestrin/scan/read_damage.hpp>
#include <kestrin/scan/scan_event_stream.hpp>

#include <filesystem>
#include <functional>
#include <memory>
#include <stop_token>
#include <vector>

namespace kestrin::scan {

/// Decides how a scan looks for the edits of `track` (a video track of `asset`): trustedKeyframes
/// when its sync samples can be trusted to sit at cuts. Runs on the scan's worker thread; its
/// error ends the scan.
using ModeDecision = std::function<core::Expected<core::ScanMode>(const media::Asset& asset,
                                                                  const media::Track& track,
                                                                  const core::Log& log,
                                                                  const std::stop_token& stop)>;

/// The real decision: keyframesTrustable() with the default KeyframeTrustParameters, stopped by
/// `stop` (then scan_error::cancelled()).
[[nodiscard]] core::Expected<core::ScanMode> decideScanMode(const media::Asset& asset,
                                                            const media::Track& track,
                                                            const core::Log& log,
                                                            const std::stop_token& stop);

/// What a scan does besides opening the file: how it decides the mode, and the detector whose
/// stages for that mode find the edits. A default-constructed one uses decideScanMode() and
/// defaultDetector().
struct ScanSteps
{
    ScanSteps();

    ModeDecision decideMode;
    Detector detector;
};

namespace detail {
struct ScanJob;
}  // namespace detail

/// The running scan, owned by whoever started it: stops it, waits for it, tells when it is done.
/// Owns the scan's worker thread. Moveable, not copyable; a moved-from handle may only be
/// destroyed or assigned to.
///
/// requestStop(), isFinished() and waitForResult() may be called from any thread, concurrently
/// with each other; destruction and assignment by the owner only.
class ScanHandle
{
public:
    explicit ScanHandle(std::unique_ptr<detail::ScanJob> job);
    ScanHandle(const ScanHandle&) = delete;
    ScanHandle& operator=(const ScanHandle&) = delete;
    ScanHandle(ScanHandle&& other) noexcept;
    /// Stops and joins the scan this handle held (as the destructor does), then takes `other`'s.
    ScanHandle& operator=(ScanHandle&& other) noexcept;
    /// In this order: requests a stop, finishes the event stream (so a consumer blocked on it
    /// drains what is held and ends, whatever the scan is doing), joins the worker thread. Blocks
    /// until the running step notices the stop request: within one decoded frame for the steps
    /// that take a stop token. Must not run on the worker thread (that is, not from the
    /// completion callback).
    ~ScanHandle();

    /// Asks the scan to stop, directly through its stop source; returns at once. A scan that has
    /// not produced its result yet ends with scan_error::cancelled() and a finished stream without
    /// a final progress event; one that has is not affected. Idempotent.
    void requestStop();

    /// Whether the result is ready (never blocks). Once true, the event stream is finished and
    /// waitForResult() returns at once.
    [[nodiscard]] bool isFinished() const;

    /// Blocks until the scan ends, then returns its outcome (the same every call):
    ///   - the markers ordered by frame index (possibly none);
    ///   - scan_error::cancelled() after a stop request;
    ///   - the error of the step that failed (the opener's, the asset's, a detector's);
    ///   - scan_error::noVideoTrack() when the file has no video track;
    ///   - scan_error::stepUnavailable() when a step the scan needed is missing;
    ///   - scan_error::unexpectedFailure() when a step threw.
    [[nodiscard]] core::Expected<std::vector<core::EditMarker>> waitForResult() const;

    /// Blocks as waitForResult() does, then returns what the scan could not read of the video
    /// (ReadLedger says how it is measured): the same every call, and clean unless the scan
    /// succeeded. A scan with damage still succeeds, with the markers of what it could read.
    [[nodiscard]] core::ReadDamage damage() const;

private:
    std::unique_ptr<detail::ScanJob> job_;
};

/// What scanForEdits() hands back: the scan's events and its handle. Destroying it stops and
/// joins the scan (the handle goes first; the stream lives on while anyone holds it).
struct Scan
{
    std::shared_ptr<ScanEventStream> events;
    ScanHandle handle;
};

/// Turns a video file into its edits (cuts), one scan per call, each on its own worker thread.
///
/// A scan opens the file, takes its first video track and decides the mode (logging
/// "🧭 trusted? true" or "🧭 trusted? false"), sends it as a mode event, then runs the
/// detector's stages for that mode in order, each on the candidates of the one before, and sends
/// progress(1.0). The stages share the progress between them in proportion to their shares. A
/// stage that switches the mode ends the scan with its result after progress(1.0) and the new
/// mode. Any error ends the scan with that error and a stream finished without a final progress
/// event; an error before the mode event leaves the stream without any event.
///
/// The service keeps nothing between scans: scans started by separate calls share nothing but
/// the opener, the log and the steps, which they only call. Destroying the service does not stop
/// its scans; their handles do. Thread-safe: scanForEdits() may be called from any thread.
class VideoScanService
{
public:
    /// Called once, on the scan's worker thread, after the result is ready and the stream
    /// finished. It must not throw, block on the interface thread or destroy the scan's handle.
    using Completion = std::function<void()>;

    VideoScanService(std::shared_ptr<const media::AssetOpener> opener,
                     core::Log log,
                     ScanSteps steps = {});

    /// Starts scanning the file at `path` and returns at once with the scan's event stream and
    /// its handle; `onFinished`, when given, is called as Completion says. Nothing is read before
    /// the return: every outcome arrives through the handle. Throws std::system_error only when no
    /// thread can be started.
    [[nodiscard]] Scan scanForEdits(const std::filesystem::path& path,
                                    Completion onFinished = {}) const;

private:
    // Immutable after construction.
    std::shared_ptr<const media::AssetOpener> opener_;
    core::Log log_;
    ScanSteps steps_;
};

}  // namespace kestrin::scan
