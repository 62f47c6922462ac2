#pragma once

#include <kestrin/core/edit_marker.hpp>
#include <kestrin/core/error.hpp>
#include <kestrin/core/frame_rate.hpp>
#include <kestrin/core/media_time.hpp>
#include <kestrin/media/asset.hpp>
#include <kestrin/scan/frame_access.hpp>
#include <kestrin/scan/frame_timeline.hpp>

#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <stop_token>
#include <vector>

namespace kestrin::scan {

/// Share of the scan's progress covered by the signature pass; the refinements cover the rest.
inline constexpr double kSignatureWeight = 0.3;
inline constexpr double kRefinementShare = 0.7;
/// A refinement searches this many frame durations either side of its candidate.
inline constexpr int kRefineHalfWidth = 12;
/// Timescale of the bounds of a refinement's search range.
inline constexpr std::int32_t kRefineTimescale = 600;

/// The track's frame rate as a fraction. The minimum frame duration is used when the track gives
/// a valid one with a value other than 0 (1001/30000 s gives 30000 / 1001); a failed load of it is
/// not an error. Otherwise the nominal rate f is mapped, first matching row deciding:
///
///     23.975 ... 23.977   24000 / 1001        47.95 ... 47.98   48000 / 1001
///     24                  24 / 1              50                50 / 1
///     25                  25 / 1              59.93 ... 59.95   60000 / 1001
///     29.969 ... 29.971   30000 / 1001        60                60 / 1
///     30                  30 / 1              anything else     round(f x 1000) / 1000
///
/// (bounds inclusive, as 32-bit floats; single values exact; rounding halves away from zero). A
/// rate that is 0, negative, not finite or too large to scale gives 0 / 1000, a rate no refinement
/// can use. Errors: a failed load of the nominal rate, unchanged. Costs nothing; any thread.
[[nodiscard]] core::Expected<core::FrameRate> frameRateRational(const media::Track& track);

/// The frame a presentation time falls in at `rate`: floor(value x num / (timescale x den) + 1e-9)
/// in 64-bit floats, so that a time a hair below a frame boundary through rounding still counts as
/// that frame (45045/30000 s at 30000 / 1001 is frame 45).
[[nodiscard]] std::int64_t frameIndexAt(const core::MediaTime& time, core::FrameRate rate);

/// Pins a cut to one frame: decodes the frames within `halfWidth` frame durations either side of
/// `candidateFrame` (the range clipped to 0 and the asset's duration, its bounds on a 1/600 s
/// clock) as video-range luma of width x height, and returns a marker on the frame after the
/// largest whole-plane mean absolute difference between neighbours (the earlier frame at equal
/// differences). The marker's time is that frame's presentation time, its frame index counted from
/// that time by frameIndexAt() at frameRateRational(track); it carries no confidence.
///
/// No marker (and no error) when the track cannot be read as pictures (a null refinement reader),
/// when its frame rate is unusable, or when fewer than two frames with an image were compared. A
/// reader that fails part-way ends the search with the frames read so far.
///
/// Errors: a failed load of the frame rate or the asset's duration; the asset's error when the
/// reader cannot be made; the reader's error, or scan_error::refineStartFailed(), when it does not
/// start; scan_error::cancelled() once `stopToken` is stopped (tested before every frame; the
/// reader, made with the token, also stops within one frame).
///
/// Cost: at most 2 x halfWidth + 1 frames decoded, two planes allocated. Paced by its own
/// AdaptiveYield, ticked once per frame. Runs on the calling thread; any number may run at once on
/// different threads.
[[nodiscard]] core::Expected<std::optional<core::EditMarker>> refineAround(
    std::int64_t candidateFrame,
    const media::Asset& asset,
    const media::Track& track,
    std::stop_token stopToken,
    int halfWidth = kRefineHalfWidth,
    int width = kSignatureWidth,
    int height = kSignatureHeight);

/// The time range a refinement of `candidateFrame` searches: `halfWidth` frame durations either
/// side of the candidate at `rate`, clipped to 0 and `durationSeconds`, its bounds on a 1/600 s
/// clock. `rate` must be usable (numerator and denominator above 0).
[[nodiscard]] core::MediaTimeRange refinementRange(std::int64_t candidateFrame,
                                                   core::FrameRate rate,
                                                   double durationSeconds,
                                                   int halfWidth = kRefineHalfWidth);

/// refineAround()'s answer for `candidateFrame`, read off a usable `timeline` instead of decoding:
/// of the frames overlapping refinementRange(), the one after the largest difference between
/// neighbours (the earlier at equal differences), as a marker without confidence; none when fewer
/// than two frames overlap or the rate is unusable. Cost: a binary search and one step per frame
/// in range; allocates nothing. Any thread, concurrently with other readers of the timeline.
[[nodiscard]] std::optional<core::EditMarker> refineFromTimeline(std::int64_t candidateFrame,
                                                                 const FrameTimeline& timeline,
                                                                 core::FrameRate rate,
                                                                 double durationSeconds,
                                                                 int halfWidth = kRefineHalfWidth);

/// How many refinements run at once on a machine with `processors` processors: 3 when more than
/// three (one is left for the rest of the application), else 2; 0 (unknown) gives 2.
[[nodiscard]] int refineWidthFor(unsigned processors);

/// Refines one candidate frame: a marker, none, or an error, with the stop token to honour.
/// Called on the pool's worker threads, several at once: it must be safe to call concurrently.
using CandidateRefiner = std::function<core::Expected<std::optional<core::EditMarker>>(
    std::int64_t candidateFrame, std::stop_token stopToken)>;

/// Runs `refine` on every frame of `candidateFrames` (ordered by frame index), at most `width`
/// (at least 1) at a time on worker threads owned by this call: the first `width` candidates start
/// at once, and each time one finishes the next not yet started follows, in frame order.
///
/// Finished refinements are handled one at a time on the calling thread in the order they finish:
/// a marker is appended to the result (so the result is in completion order, not sorted); then,
/// with `done` refinements finished out of n, the progress p = min(0.3 + 0.7 x done / n, 1),
/// raised to `lastProgress` when that is higher, is stored in `lastProgress` and reported. A
/// refinement that gives no marker still counts.
///
/// Errors: the first error a refinement returns. It stops the others (their stop token is linked
/// to `stopToken` and stopped on that error), and the call returns it once every worker has been
/// joined, reporting nothing more. A stop request through `stopToken` reaches every running
/// refinement, and the call ends with what the first of them returns (scan_error::cancelled() for
/// refineAround).
///
/// Returns after joining every worker it started, whatever the outcome.
[[nodiscard]] core::Expected<std::vector<core::EditMarker>> refineCandidates(
    std::span<const std::int64_t> candidateFrames,
    int width,
    const CandidateRefiner& refine,
    const ProgressCallback& reportProgress,
    double& lastProgress,
    std::stop_token stopToken);

}  // namespace kestrin::scan
