#pragma once

#include <kestrin/core/edit_marker.hpp>
#include <kestrin/core/error.hpp>
#include <kestrin/core/log.hpp>
#include <kestrin/core/sync_sample.hpp>
#include <kestrin/media/asset.hpp>
#include <kestrin/scan/frame_access.hpp>
#include <kestrin/scan/scan_event_stream.hpp>

#include <filesystem>
#include <functional>
#include <memory>
#include <stop_token>
#include <vector>

namespace kestrin::scan {

/// The operations a scan calls, in the order it calls them. Each runs on the scan's worker thread
/// and returns its value or the error that ends the scan. Steps that take a stop token should
/// return soon after it is stopped (with any error: the scan then ends as cancelled); steps that
/// take none are bounded by themselves, and the scan tests for a stop request around them.
///
/// A default-constructed ScanSteps runs the real operations with the values a scan uses:
/// keyframesTrustable() with the default KeyframeTrustParameters, collectSyncSamplesFast(),
/// confirmEditsNearSyncs() with the default ConfirmationParameters and detectEditsByDecoding().
/// A step left empty by a test makes a scan that needs it end with scan_error::stepUnavailable().
struct ScanSteps
{
    /// Whether the sync samples of `track` (a video track of `asset`) sit at cuts.
    using TrustDecision = std::function<core::Expected<bool>(
        const media::Asset& asset, const media::Track& track, const core::Log& log)>;
    /// The sync samples of `track` in decode order.
    using SyncCollection = std::function<core::Expected<std::vector<core::SyncSample>>(
        const media::Track& track, const core::Log& log)>;
    /// The edits among `syncs` (not empty), ordered by frame index; reports progress through
    /// `reportProgress`.
    using Confirmation = std::function<core::Expected<std::vector<core::EditMarker>>(
        const media::Asset& asset,
        const media::Track& track,
        const std::vector<core::SyncSample>& syncs,
        const ProgressCallback& reportProgress,
        const core::Log& log,
        std::stop_token stopToken)>;
    /// The edits of the file at `path` found by decoding it whole (it opens the file again through
    /// `opener`), ordered by frame index; reports progress through `reportProgress`.
    using Detection = std::function<core::Expected<std::vector<core::EditMarker>>(
        const media::AssetOpener& opener,
        const std::filesystem::path& path,
        const ProgressCallback& reportProgress,
        std::stop_token stopToken)>;

    /// Every step wired to the real operation (see above).
    ScanSteps();

    TrustDecision decideTrust;
    SyncCollection collectSyncs;
    Confirmation confirmEdits;
    Detection detectEdits;
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
/// A scan opens the file, takes its first video track and asks whether its keyframes can be
/// trusted (logging "🧭 trusted? true" or "🧭 trusted? false"), sends that as a mode event,
/// then:
///   - trusted: lists the sync samples; none means no edits (events progress(1.0) then
///     mode(noKeyframes)); otherwise confirms them, then sends progress(1.0);
///   - not trusted: detects the edits by decoding the whole file, then sends progress(1.0).
/// Any error ends the scan with that error and a stream finished without a final progress event;
/// an error before the mode event leaves the stream without any event.
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
