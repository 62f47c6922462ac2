#pragma once

#include <kestrin/core/edit_marker.hpp>
#include <kestrin/core/error.hpp>
#include <kestrin/media/asset.hpp>
#include <kestrin/scan/frame_access.hpp>
#include <kestrin/scan/refinement.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <stop_token>
#include <vector>

namespace kestrin::scan {

/// With fewer scores than this the decoding detector finds nothing.
inline constexpr std::size_t kMinimumScores = 8;
/// A scored frame is a candidate when (score - median) / scale reaches this, where
/// scale = max(kScaleFactor x robustSigma, kScaleFloor).
inline constexpr float kZThreshold = 3.0F;
inline constexpr float kScaleFactor = 0.9F;
inline constexpr float kScaleFloor = 0.000001F;
/// When no frame stands out, the highest scores are taken instead: this many per minute of
/// duration, and at least this many.
inline constexpr double kFallbackCandidatesPerMinute = 18.0;
/// Candidates closer than twice this keep only the stronger.
inline constexpr std::int64_t kSuppressionRadius = 10;
/// Refined markers this close merge into one.
inline constexpr std::int64_t kMergeDistance = 3;

/// A frame the signature pass picked out, with its score. The frame index counts frames with an
/// image from 0, as the signature pass does.
struct Candidate
{
    std::int64_t frameIndex = 0;
    float score = 0.0F;

    friend bool operator==(const Candidate&, const Candidate&) = default;
};

/// Every how many frames the signature pass scores one, by nominal frame rate f:
///
///     0 < f < 26   3        40 <= f < 70   6        f <= 0 or not a number   4
///     26 <= f < 40 4        f >= 70        8
[[nodiscard]] int sampleStrideForRate(float framesPerSecond);

/// The median in 32-bit floats: the middle value, or the mean of the two middle values for an even
/// count; 0 for no values. Cost: one copy and one selection.
[[nodiscard]] float median(std::span<const float> values);

/// A robust standard deviation: the median of |v - centre| over `values`, times 1.4826 (which
/// makes it the standard deviation for normally distributed values). Cost: one copy and one
/// selection.
[[nodiscard]] float robustSigma(std::span<const float> values, float centre);

/// Thins out candidates that lie close together: taken by score, highest first (at equal scores in
/// the given order), a candidate is kept unless a kept one lies within 2 x radius frames of it.
/// So of two candidates 20 frames apart (radius 10) only the stronger stays; at 21 both do.
/// Returns the kept candidates ordered by frame index. Cost: O(n log n).
[[nodiscard]] std::vector<Candidate> suppressNearbyCandidates(std::vector<Candidate> candidates,
                                                              std::int64_t radius);

/// Merges markers that lie close together: sorted by frame index (stably), each marker within
/// `distance` frames of the last one kept replaces it, unless both carry a confidence and the
/// kept one's is not lower; the next marker is compared with the one now kept. So markers at 100
/// and 103 give 103; at 100 and 104 both stay; at 100, 103 and 106 only 106 stays. Returns the
/// result ordered by frame index.
[[nodiscard]] std::vector<core::EditMarker> mergeNearbyMarkers(
    std::vector<core::EditMarker> markers, std::int64_t distance);

/// Refines one candidate of `asset`'s `track`, in place of the default (see DetectionOptions).
/// Called on worker threads, several at once.
using Refiner =
    std::function<core::Expected<std::optional<core::EditMarker>>(std::int64_t candidateFrame,
                                                                  const media::Asset& asset,
                                                                  const media::Track& track,
                                                                  std::stop_token stopToken)>;

/// What detectEditsByDecoding may be told besides its input; the defaults are what the scan uses.
struct DetectionOptions
{
    /// Processors of the machine, which set how many refinements run at once (refineWidthFor);
    /// absent: std::thread::hardware_concurrency().
    std::optional<unsigned> processorCount;
    /// Absent: refineFromTimeline() on the signature pass's timeline when it is usable, else
    /// refineAround(), both with the default half-width and size (they give the same markers).
    Refiner refine;
};

/// Finds the cuts of `track` (a video track of `asset`) by decoding it, for tracks whose
/// keyframes cannot be trusted to sit at cuts. One signature pass (scoreSignatures, every
/// sampleStrideForRate()-th frame) scores how much each sampled frame changed; the frames whose
/// score stands out from the median by kZThreshold robust deviations are the candidates (when
/// none does: the highest scores, kFallbackCandidatesPerMinute per minute);
/// suppressNearbyCandidates thins them; refineCandidates pins each to a frame with
/// `options.refine`, at most refineWidthFor(processors) at once; mergeNearbyMarkers joins the
/// markers that land together.
///
/// Returns the markers ordered by frame index, without confidence; the empty list, with no error,
/// when fewer than kMinimumScores frames were scored, or when no candidate is left.
///
/// Progress: the signature pass reports from 0 up to kSignatureWeight, then every finished
/// refinement 0.3 + 0.7 x done / candidates; never decreasing. 1.0 is not reported: the caller
/// ends the scan with it.
///
/// Errors: a failed load of the asset's duration or the track's nominal frame rate; the errors of
/// makeTrackReader and scoreSignatures; the first error of a refinement (the others are stopped
/// and joined first). The signature reader is cancelled on every way out. A stop request through
/// `stopToken` ends the pass or the refinements within one frame with scan_error::cancelled().
///
/// Runs on the calling thread (never the interface's), which it blocks until the end; the
/// refinements run on worker threads owned by the call, joined before it returns. Cost: the whole
/// track is decoded once and every frame converted to 96 x 54 luma; the refinements decode again
/// (at most 2 x kRefineHalfWidth + 1 frames around each candidate) only when the timeline is not
/// usable. Memory: one timeline entry per frame besides the scores.
[[nodiscard]] core::Expected<std::vector<core::EditMarker>> detectEditsByDecoding(
    const media::Asset& asset,
    const media::Track& track,
    const ProgressCallback& reportProgress,
    std::stop_token stopToken,
    const DetectionOptions& options = {});

}  // namespace kestrin::scan
