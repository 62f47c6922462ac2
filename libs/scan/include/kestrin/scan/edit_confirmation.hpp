#pragma once

#include <kestrin/core/edit_marker.hpp>
#include <kestrin/core/error.hpp>
#include <kestrin/core/log.hpp>
#include <kestrin/core/media_time.hpp>
#include <kestrin/core/sync_sample.hpp>
#include <kestrin/media/asset.hpp>
#include <kestrin/scan/frame_access.hpp>
#include <kestrin/scan/luma_plane.hpp>

#include <cstdint>
#include <optional>
#include <span>
#include <stop_token>
#include <vector>

namespace kestrin::scan {

/// The tuning of confirmEditsNearSyncs, with the values the scan uses.
struct ConfirmationParameters
{
    /// Thumbnail size in pixels.
    std::int64_t thumbWidth = 320;
    std::int64_t thumbHeight = 180;
    /// The window runs from framesBefore frame durations before the sync time (not before 0) up
    /// to framesAfter frame durations after it, and holds at most framesBefore + framesAfter + 1
    /// thumbnails. Both must fit in 32 bits.
    std::int64_t framesBefore = 4;
    std::int64_t framesAfter = 4;
    /// Least largest difference (luma levels, 0..255) for a keep; a window of exactly two
    /// thumbnails needs 1.6 times this.
    double absThreshold = 11.0;
    /// Least robust z-score of the largest difference for a keep.
    double zThreshold = 2.0;
    /// The largest difference must reach this multiple of the next largest one.
    double peakRatio = 1.6;
    /// Kept candidates whose index lies within this many samples of the current best of their
    /// group are merged into it.
    std::int64_t minSeparation = 2;
};

/// How one sync sample's window scored.
struct ScoredCandidate
{
    /// The sync sample's decode-order index.
    std::int64_t idx = 0;
    /// The sync sample's presentation time.
    core::MediaTime time;
    /// The largest mean absolute luma difference between consecutive thumbnails (0..255).
    double absAtBoundary = 0.0;
    /// Robust z-score of absAtBoundary against the window's other differences; 0 when there are
    /// none.
    double rZ = 0.0;
    /// Whether the sample passed every test and stands as an edit.
    bool keep = false;
};

/// The frame duration that sizes the windows: 1 / `nominalFrameRate` seconds, or 1/30 s when the
/// rate is 0 or less or failed to load, rounded to the nearest 1/600 s (25 fps: 24/600; 23.976
/// and 24 fps: 25/600; 29.97 and 30 fps: 20/600).
[[nodiscard]] core::MediaTime confirmationFrameDuration(
    const core::Expected<float>& nominalFrameRate);

/// The stretch decoded around a sync sample at `syncTime`: from framesBefore frame durations
/// before it, but not before 0, up to framesAfter frame durations after it.
[[nodiscard]] core::MediaTimeRange confirmationWindow(const core::MediaTime& syncTime,
                                                      const core::MediaTime& frameDuration,
                                                      const ConfirmationParameters& parameters);

/// Scores the window of `sync` from its thumbnails, taken to be consecutive frames in display
/// order (any sizes; each pair is compared over the shorter of the two).
///
/// absAtBoundary is the largest difference of consecutive thumbnails (the first of equal ones);
/// the others are the remaining differences. With exactly two thumbnails rZ is 0 and the sample
/// needs absAtBoundary >= absThreshold x 1.6. Otherwise rZ = (absAtBoundary - median) /
/// max(MAD x 1.4826, 1e-6) over the others, and the sample needs absAtBoundary >= absThreshold
/// and rZ >= zThreshold. It is then still rejected as a weak peak when absAtBoundary falls below
/// peakRatio x the largest other difference (if that is above 0), or as a flash when the mean luma
/// of the thumbnail after the change stands more than 2 x (|A - C| + 1) away from both A and C,
/// the means of the thumbnails just before the change and two after it.
///
/// Returns nothing with fewer than two thumbnails. Cost: one pass over each thumbnail, plus three
/// more for the flash test; allocates only the list of differences.
[[nodiscard]] std::optional<ScoredCandidate> scoreWindow(const core::SyncSample& sync,
                                                         std::span<const LumaPlane> thumbnails,
                                                         const ConfirmationParameters& parameters);

/// The kept candidates of `candidates` merged into groups, the best of each group in ascending
/// index order. Walking the kept ones by index, a group's first candidate is its best and sets the
/// anchor; a following candidate within `minSeparation` of the anchor joins the group, and when
/// its absAtBoundary is strictly greater it becomes the best and moves the anchor to its own
/// index (on a tie the earlier stays best). Cost: a sort of the kept candidates.
[[nodiscard]] std::vector<ScoredCandidate> mergeKeptCandidates(
    std::vector<ScoredCandidate> candidates, std::int64_t minSeparation);

/// Confirms which sync samples of `track` (a video track of `asset`) sit at picture edits.
///
/// For each sync sample in list order: decodes its confirmationWindow, with the
/// confirmationFrameDuration of the track's nominal frame rate, through decodeWindowFrames
/// (thumbnails of thumbWidth x thumbHeight, at most framesBefore + framesAfter + 1 of them) and
/// scores it with scoreWindow; a window of fewer than two thumbnails gives no candidate. The kept
/// candidates are merged with mergeKeptCandidates and each group's best becomes a marker with the
/// sample's index and time and no confidence, in ascending index order.
///
/// Progress: after each sync sample k of n, ((k + 1) / n) x 0.99 + 0.01 (also when the sample
/// gave no candidate); then 1.0 once the markers are made. With an empty list: 1.0 alone.
///
/// Outcomes:
///   - the markers, with one line written to `log`: "confirmEditsNearSyncs: kept M of N sync
///     samples as edit markers." (nothing is logged for an empty list);
///   - the error of decodeWindowFrames as it is, the first time a window fails: the call ends
///     there, without markers or log line;
///   - scan_error::cancelled(): `stopToken` was stopped. It is tested before each window is
///     decoded and handed to decodeWindowFrames, so a stop ends the call within one frame.
///
/// Runs on the calling thread; windows are decoded one after another, one window's thumbnails
/// held at a time (at most 9 x 57,600 bytes with the usual parameters).
[[nodiscard]] core::Expected<std::vector<core::EditMarker>> confirmEditsNearSyncs(
    const media::Asset& asset,
    const media::Track& track,
    const std::vector<core::SyncSample>& syncSamples,
    const ConfirmationParameters& parameters,
    const ProgressCallback& reportProgress,
    const core::Log& log,
    std::stop_token stopToken = {});

}  // namespace kestrin::scan
