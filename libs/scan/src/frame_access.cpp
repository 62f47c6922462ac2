#include <kestrin/scan/frame_access.hpp>
#include <kestrin/scan/luma_signature.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <algorithm>
#include <utility>

namespace kestrin::scan {
namespace {

constexpr double kShortestDurationSeconds = 0.001;
// Windows are short (9 frames as the confirmation asks); reserve that much, not maxFrames.
constexpr std::size_t kWindowReserve = 16;

// How far through the track a frame at `time` lies: time over duration, limited to 0..1.
double fractionOf(const core::MediaTime& time, double durationSeconds)
{
    const double fraction = time.seconds() / durationSeconds;
    if (!(fraction > 0.0)) {  // also NaN for an invalid time
        return 0.0;
    }
    return std::min(fraction, 1.0);
}

core::Error readerErrorOr(const media::FrameReader& reader, core::Error fallback)
{
    if (auto error = reader.error()) {
        return std::move(*error);
    }
    return fallback;
}

}  // namespace

core::Expected<std::unique_ptr<media::FrameReader>> makeTrackReader(const media::Asset& asset,
                                                                    const media::Track& track,
                                                                    std::stop_token stopToken)
{
    const media::FrameReaderSettings settings{
        kSignatureWidth, kSignatureHeight, media::LumaRange::full, std::nullopt};
    auto reader = asset.makeFrameReader(track, settings, std::move(stopToken));
    if (reader && *reader == nullptr) {
        return scan_error::cannotAddVideoOutput();
    }
    return reader;
}

core::Expected<std::unique_ptr<media::FrameReader>> makeRefinementReader(
    const media::Asset& asset,
    const media::Track& track,
    const core::MediaTimeRange& timeRange,
    int width,
    int height,
    std::stop_token stopToken)
{
    const media::FrameReaderSettings settings{width, height, media::LumaRange::video, timeRange};
    return asset.makeFrameReader(track, settings, std::move(stopToken));
}

SignaturePassState::SignaturePassState(std::int64_t stride)
    : sampleStride(std::max<std::int64_t>(stride, 1))
    , current(kSignatureWidth, kSignatureHeight)
    , previous(kSignatureWidth, kSignatureHeight)
    , videoCurrent(kSignatureWidth, kSignatureHeight)
    , videoPrevious(kSignatureWidth, kSignatureHeight)
{
    scoresByFrame.reserve(kScoreCapacity);
    scoresInOrder.reserve(kScoreCapacity);
}

std::optional<float> SignaturePassState::scoreOfFrame(std::int64_t frameIndex) const
{
    const auto found = std::lower_bound(
        scoresByFrame.begin(),
        scoresByFrame.end(),
        frameIndex,
        [](const FrameScore& entry, std::int64_t index) { return entry.frameIndex < index; });
    if (found == scoresByFrame.end() || found->frameIndex != frameIndex) {
        return std::nullopt;
    }
    return found->score;
}

core::Status scoreSignatures(media::FrameReader& reader,
                             const core::MediaTime& duration,
                             double weight,
                             const ProgressCallback& reportProgress,
                             double& lastProgress,
                             SignaturePassState& state,
                             std::stop_token stopToken)
{
    if (reader.status() == media::ReaderStatus::reading) {
        return scan_error::readerAlreadyReading();
    }
    if (!reader.startReading()) {
        return readerErrorOr(reader, scan_error::failedToStartReading());
    }
    // Written so that a duration that is not a number also falls back to the shortest one.
    const double durationSeconds = duration.seconds() >= kShortestDurationSeconds
                                       ? duration.seconds()
                                       : kShortestDurationSeconds;
    const std::int64_t stride = std::max<std::int64_t>(state.sampleStride, 1);

    while (reader.status() == media::ReaderStatus::reading) {
        const auto frame = reader.nextFrame();
        if (!frame) {
            break;
        }
        if (stopToken.stop_requested()) {
            return scan_error::cancelled();
        }
        if (!isReadableFrame(*frame)) {
            continue;
        }
        if (state.decodedCount % kProgressInterval == 0) {
            const double progress = std::max(
                std::min(fractionOf(frame->presentationTime, durationSeconds) * weight, 1.0),
                lastProgress);
            lastProgress = progress;
            if (reportProgress) {
                reportProgress(progress);
            }
        }
        extractLumaPlane(*frame, state.videoCurrent);
        const bool isSampled = state.decodedCount % stride == 0;
        if (isSampled) {
            std::copy(state.videoCurrent.bytes().begin(),
                      state.videoCurrent.bytes().end(),
                      state.current.bytes().begin());
        }
        for (std::uint8_t& value : state.videoCurrent.bytes()) {
            value = media::videoRangeLuma(value);
        }
        state.timeline.append({frame->presentationTime,
                               frame->duration,
                               state.decodedCount > 0 ? std::optional(
                                   meanAbsoluteDifference(state.videoPrevious, state.videoCurrent))
                                                      : std::nullopt});
        std::swap(state.videoCurrent, state.videoPrevious);
        if (isSampled) {
            applySignatureToneCurve(state.current);
            if (state.hasPrevious) {
                const float score = blockDifferenceScore(state.current, state.previous);
                state.scoresByFrame.push_back(FrameScore{state.decodedCount, score});
                state.scoresInOrder.push_back(score);
            }
            std::swap(state.current, state.previous);
            state.hasPrevious = true;
        }
        ++state.decodedCount;
    }

    // A reader made with our stop token ends by itself on a stop request, as cancelled or, where
    // the stop cut a read short, possibly as failed: either way the pass was cancelled.
    if (stopToken.stop_requested()) {
        return scan_error::cancelled();
    }
    if (reader.status() == media::ReaderStatus::failed) {
        return readerErrorOr(reader, scan_error::readerFailedDuringIteration());
    }
    return {};
}

core::Expected<std::vector<LumaPlane>> decodeWindowFrames(const media::Asset& asset,
                                                          const media::Track& track,
                                                          const core::MediaTimeRange& range,
                                                          int maxFrames,
                                                          int width,
                                                          int height,
                                                          std::stop_token stopToken)
{
    std::vector<LumaPlane> planes;
    if (maxFrames < 1 || width < 1 || height < 1 || !(range.duration.seconds() > 0.0)) {
        return planes;
    }
    const media::FrameReaderSettings settings{width, height, media::LumaRange::full, range};
    auto made = asset.makeFrameReader(track, settings, stopToken);
    if (!made) {
        return made.error();
    }
    const std::unique_ptr<media::FrameReader> reader = std::move(*made);
    if (reader == nullptr) {
        return planes;
    }
    if (!reader->startReading()) {
        return readerErrorOr(*reader, scan_error::decodeStartFailed());
    }
    const auto limit = static_cast<std::size_t>(maxFrames);
    planes.reserve(std::min(limit, kWindowReserve));
    while (planes.size() < limit && reader->status() == media::ReaderStatus::reading) {
        const auto frame = reader->nextFrame();
        if (!frame) {
            break;  // the status says why
        }
        if (!isReadableFrame(*frame)) {
            continue;
        }
        planes.emplace_back(width, height);
        extractLumaPlane(*frame, planes.back());
    }
    if (stopToken.stop_requested()) {
        return scan_error::cancelled();
    }
    if (reader->status() == media::ReaderStatus::failed) {
        return readerErrorOr(*reader, scan_error::decodeFailed());
    }
    reader->cancelReading();
    if (planes.size() > limit) {
        planes.resize(limit);
    }
    return planes;
}

}  // namespace kestrin::scan
