#pragma once

#include <kestrin/core/error.hpp>
#include <kestrin/core/media_time.hpp>
#include <kestrin/media/asset.hpp>
#include <kestrin/media/frame_reader.hpp>
#include <kestrin/scan/frame_timeline.hpp>
#include <kestrin/scan/luma_plane.hpp>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

namespace kestrin::scan {

/// Size of the planes of the signature pass and of the refinement.
inline constexpr int kSignatureWidth = 96;
inline constexpr int kSignatureHeight = 54;
/// Entries reserved up front in each score container of a signature pass.
inline constexpr std::size_t kScoreCapacity = 65'536;
/// The signature pass reports progress on every frame whose count is a multiple of this.
inline constexpr std::int64_t kProgressInterval = 32;

/// Receives a progress fraction of the whole scan (0 to 1). Called on the decoding thread.
using ProgressCallback = std::function<void(double)>;

// Reader set-ups. Our frame readers deliver luma already scaled to the size and range they were
// asked for, so each set-up is a choice of FrameReaderSettings. Creating a reader can go wrong in
// two ways, told apart the same way for every set-up:
//   - makeFrameReader returns an error: the reader could not be created (file, demuxer, decoder).
//     That error is passed on unchanged by every caller.
//   - makeFrameReader succeeds with a null reader: the track cannot be decoded into luma planes
//     (the track output cannot be attached). Each caller treats this as stated on it.
// Random access needs no set-up here: every reader seeks by itself when it has a time range.

/// The signature pass's reader: the whole track, full-range luma at 96 x 54. Errors: the asset's
/// own error when the reader cannot be created; scan_error::cannotAddVideoOutput() when the asset
/// gives no reader. The reader is made in the notStarted state; a stop request through `stopToken`
/// ends its reads (the pass then ends with the cancellation error).
[[nodiscard]] core::Expected<std::unique_ptr<media::FrameReader>> makeTrackReader(
    const media::Asset& asset, const media::Track& track, std::stop_token stopToken = {});

/// The refinement's reader: video-range luma of width x height for the frames that overlap
/// `timeRange`. Errors: the asset's own error when the reader cannot be created. A null reader
/// (with no error) means the track output cannot be attached: the refinement then gives no marker.
[[nodiscard]] core::Expected<std::unique_ptr<media::FrameReader>> makeRefinementReader(
    const media::Asset& asset,
    const media::Track& track,
    const core::MediaTimeRange& timeRange,
    int width,
    int height,
    std::stop_token stopToken = {});

/// One scored frame of a signature pass.
struct FrameScore
{
    /// Index of the frame among the frames with an image, from 0.
    std::int64_t frameIndex = 0;
    float score = 0.0F;

    friend bool operator==(const FrameScore&, const FrameScore&) = default;
};

/// The state of one signature pass: made by the detector, filled by scoreSignatures, read
/// afterwards. Owned by one thread.
struct SignaturePassState
{
    /// A fresh pass that scores every `stride`-th frame (a stride below 1 is taken as 1).
    /// Allocates the two planes (96 x 54, zero-filled) and reserves kScoreCapacity entries in both
    /// score containers, so the pass itself allocates nothing per frame up to that many scores.
    explicit SignaturePassState(std::int64_t stride);

    /// Frames with an image decoded so far; while a frame is in hand, its index.
    std::int64_t decodedCount = 0;
    std::int64_t sampleStride = 1;
    /// The frame in hand and the last scored frame, after the tone curve; their roles swap after
    /// every sampled frame.
    LumaPlane current;
    LumaPlane previous;
    /// False until the first sampled frame has been extracted.
    bool hasPrevious = false;
    /// Every frame with an image in video range, for the timeline: the frame in hand and the one
    /// before it; their roles swap after every frame.
    LumaPlane videoCurrent;
    LumaPlane videoPrevious;
    /// Every frame with an image, in decode order, with its difference to the one before.
    FrameTimeline timeline;
    /// One entry per scored frame, ordered by frame index (a flat map: the pass scores frames in
    /// increasing order, so appending keeps it sorted). Frame k x stride (k >= 1) is scored against
    /// frame (k - 1) x stride and stored under its own index; frame 0 has no entry.
    std::vector<FrameScore> scoresByFrame;
    /// The same scores alone, in the order computed.
    std::vector<float> scoresInOrder;

    /// The score stored for `frameIndex`, if that frame was scored. Cost: a binary search.
    [[nodiscard]] std::optional<float> scoreOfFrame(std::int64_t frameIndex) const;
};

/// The signature pass: reads `reader` (made by makeTrackReader, not yet started) to its end and
/// scores every `state.sampleStride`-th frame with an image against the previous scored one:
/// the 96 x 54 luma is passed through signatureToneCurve() and compared with blockDifferenceScore.
/// Frames without a readable image (isReadableFrame) are skipped and not counted. Every counted
/// frame is also appended to `state.timeline` with the mean absolute difference of its video-range
/// luma (media::videoRangeLuma of the plane read) to the previous counted frame's, which is what
/// the refinements compare.
///
/// Progress: on every counted frame whose index is a multiple of kProgressInterval (0, 32, 64, ...)
/// the pass reports p = min(fraction x weight, 1), raised to `lastProgress` when that is higher,
/// and stores it in `lastProgress`; fraction is the frame's presentation time over `duration`
/// (taken as at least 0.001 s, and as 0.001 s when not a number), limited to 0..1. So reports never
/// decrease, and never exceed `weight` when `lastProgress` starts at or below it. A zero duration
/// reports the full weight from frame 32 on.
///
/// Outcomes, a reader's own error always preferred to ours:
///   - ok: the reader ended completed (or cancelled without a stop request); the scores are
///     complete.
///   - scan_error::readerAlreadyReading(): the reader was already reading; nothing was read.
///   - the reader's error, else scan_error::failedToStartReading(): the reader did not start.
///   - the reader's error, else scan_error::readerFailedDuringIteration(): it failed part-way.
///   - scan_error::cancelled(): `stopToken` was stopped; tested once per decoded frame and once
///     more at the end (a reader made with the same token stops by itself).
/// On an error the state holds the partial scores of an abandoned pass: discard it.
///
/// Runs on the calling worker thread. There is no yield between frames: it exists to serve an
/// interface on the same thread, and ours decodes on workers, so it would be a no-op. Allocates
/// nothing per frame while the score containers are within their reserved capacity, except the
/// timeline's amortised growth.
[[nodiscard]] core::Status scoreSignatures(media::FrameReader& reader,
                                           const core::MediaTime& duration,
                                           double weight,
                                           const ProgressCallback& reportProgress,
                                           double& lastProgress,
                                           SignaturePassState& state,
                                           std::stop_token stopToken = {});

/// Decodes the frames of `range` into up to `maxFrames` full-range luma planes of width x height,
/// in presentation order; used to make the thumbnails around a sync sample.
///
/// Outcomes:
///   - an empty list, without making a reader: maxFrames below 1, width or height below 1, or a
///     range whose duration is not above 0 s.
///   - an empty list, without error: the asset gives no reader for the track (the output cannot be
///     attached).
///   - the asset's own error: the reader could not be created.
///   - the reader's error, else scan_error::decodeStartFailed(): the reader did not start.
///   - the reader's error, else scan_error::decodeFailed(): it failed part-way.
///   - scan_error::cancelled(): `stopToken` was stopped; the reader, made with it, then stops
///     within one frame. Otherwise no cancellation test is made: the caller tests between windows.
///   - else the planes of the frames with a readable image, at most maxFrames (reading stops as
///     soon as that many are collected); fewer or none when the range holds fewer.
/// Allocates one plane per frame kept. Runs on the calling thread.
[[nodiscard]] core::Expected<std::vector<LumaPlane>> decodeWindowFrames(
    const media::Asset& asset,
    const media::Track& track,
    const core::MediaTimeRange& range,
    int maxFrames,
    int width,
    int height,
    std::stop_token stopToken = {});

}  // namespace kestrin::scan
