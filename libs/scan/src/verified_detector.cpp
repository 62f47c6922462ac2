#include <kestrin/scan/detector.hpp>
#include <kestrin/scan/keyframe_trust.hpp>
#include <kestrin/scan/refinement.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string>
#include <utility>

namespace kestrin::scan {
namespace {

using Markers = std::vector<core::EditMarker>;

// How a decoding loop names its failures: the whole-track pass and the short windows have their
// own errors for a reader that does not start or fails part-way.
struct ReadErrors
{
    core::Error (*notStarted)();
    core::Error (*failed)();
};
constexpr ReadErrors kPassErrors{scan_error::failedToStartReading,
                                 scan_error::readerFailedDuringIteration};
constexpr ReadErrors kWindowErrors{scan_error::decodeStartFailed, scan_error::decodeFailed};

// Feeds every readable frame of `reader` (not started) to `analyzer` and finishes it. `indexOf`
// names a frame from its time and its position among the frames read; `onFrame` is told each
// position and time (for progress).
template <typename IndexOf, typename OnFrame>
core::Status analyseFrames(media::FrameReader& reader,
                           BoundaryAnalyzer& analyzer,
                           const std::stop_token& stopToken,
                           ReadErrors errors,
                           IndexOf indexOf,
                           OnFrame onFrame)
{
    if (!reader.startReading()) {
        return reader.error().value_or(errors.notStarted());
    }
    LumaPlane plane(kSignatureWidth, kSignatureHeight);
    std::int64_t position = 0;
    while (const std::optional<media::LumaFrame> frame = reader.nextFrame()) {
        if (stopToken.stop_requested()) {
            reader.cancelReading();
            return scan_error::cancelled();
        }
        if (!extractLumaPlane(*frame, plane)) {
            continue;
        }
        onFrame(position, frame->presentationTime);
        analyzer.push(indexOf(frame->presentationTime, position), frame->presentationTime, plane);
        ++position;
    }
    if (stopToken.stop_requested()) {
        return scan_error::cancelled();
    }
    if (reader.status() == media::ReaderStatus::failed) {
        return reader.error().value_or(errors.failed());
    }
    analyzer.finish();
    return {};
}

// One frame's duration on the track: the real one where the track states it, else from the
// nominal rate, else 1/30 s.
core::MediaTime frameDurationOf(const media::Track& track)
{
    if (const auto exact = track.minFrameDuration();
        exact && exact->isNumeric() && exact->value > 0) {
        return *exact;
    }
    if (const auto rate = track.nominalFrameRate(); rate && *rate > 0.0F) {
        return core::MediaTime::fromSeconds(1.0 / static_cast<double>(*rate), 90'000);
    }
    return core::MediaTime::make(1, 30);
}

// The evidence of the changes within `reach` frames of `centre`, read from the frames
// kWindowFrames either side of it.
core::Expected<std::vector<CutEvidence>> evidenceAround(const DetectionContext& context,
                                                        const core::MediaTime& centre)
{
    const core::MediaTime frame = frameDurationOf(context.track);
    core::MediaTime start = centre;
    for (int i = 0; i < kWindowFrames && start > core::MediaTime::zero(); ++i) {
        start = start - frame;
    }
    start = std::max(start, core::MediaTime::zero());
    core::MediaTime end = centre;
    for (int i = 0; i < kWindowFrames; ++i) {
        end = end + frame;
    }
    const media::FrameReaderSettings settings{kSignatureWidth,
                                              kSignatureHeight,
                                              media::LumaRange::full,
                                              core::MediaTimeRange::fromStartEnd(start, end)};
    auto reader = context.asset.makeFrameReader(context.track, settings, context.stopToken);
    if (!reader) {
        return reader.error();
    }
    if (*reader == nullptr) {
        return std::vector<CutEvidence>{};
    }
    const core::Expected<FrameRateRational> rate = frameRateRational(context.track);
    if (!rate) {
        return rate.error();
    }
    BoundaryAnalyzer analyzer;
    const auto indexOf = [&rate](const core::MediaTime& time, std::int64_t) {
        return rate->numerator > 0 ? frameIndexAt(time, *rate) : 0;
    };
    if (const core::Status read = analyseFrames(
            **reader, analyzer, context.stopToken, kWindowErrors, indexOf, [](auto, auto&) {});
        !read) {
        return read.error();
    }
    return analyzer.takeEvidence();
}

// The strongest of `found` within `reach` frames of `frameIndex`.
std::optional<CutEvidence> strongestNear(std::vector<CutEvidence> found,
                                         std::int64_t frameIndex,
                                         std::int64_t reach)
{
    std::optional<CutEvidence> best;
    for (CutEvidence& evidence : found) {
        if (std::abs(evidence.frameIndex - frameIndex) <= reach
            && (!best || evidence.residual > best->residual)) {
            best = std::move(evidence);
        }
    }
    return best;
}

}  // namespace

core::Expected<std::vector<core::EditMarker>> boundaryPassStep(const DetectionContext& context,
                                                               std::vector<core::EditMarker>)
{
    const auto duration = context.asset.duration();
    if (!duration) {
        return duration.error();
    }
    auto reader = makeTrackReader(context.asset, context.track, context.stopToken);
    if (!reader) {
        return reader.error();
    }
    const double seconds = std::max(duration->seconds(), 0.001);
    BoundaryAnalyzer analyzer;
    Markers candidates;
    const auto collect = [&] {
        for (CutEvidence& evidence : analyzer.takeEvidence()) {
            candidates.push_back({evidence.frameIndex, evidence.time, std::nullopt});
            context.evidence.add(std::move(evidence));
        }
    };
    const auto onFrame = [&](std::int64_t position, const core::MediaTime& time) {
        if (position % kProgressInterval == 0) {
            const double fraction = time.seconds() / seconds;
            context.reportProgress(std::isfinite(fraction) ? std::clamp(fraction, 0.0, 1.0) : 0.0);
            collect();
        }
    };
    const auto byPosition = [](const core::MediaTime&, std::int64_t position) {
        return position;
    };
    if (const core::Status read =
            analyseFrames(**reader, analyzer, context.stopToken, kPassErrors, byPosition, onFrame);
        !read) {
        return read.error();
    }
    collect();
    return candidates;
}

core::Expected<std::vector<core::EditMarker>> syncWindowStep(const DetectionContext& context,
                                                             std::vector<core::EditMarker>)
{
    const core::Expected<std::vector<core::SyncSample>> syncs =
        collectSyncSamplesFast(context.track, context.log);
    if (!syncs) {
        return syncs.error();
    }
    if (syncs->empty()) {
        context.switchMode(core::ScanMode::noKeyframes);
        return Markers{};
    }
    const core::Expected<FrameRateRational> rate = frameRateRational(context.track);
    if (!rate) {
        return rate.error();
    }
    Markers candidates;
    for (std::size_t k = 0; k < syncs->size(); ++k) {
        if (context.stopToken.stop_requested()) {
            return scan_error::cancelled();
        }
        const core::SyncSample& sync = (*syncs)[k];
        if (sync.time.isNumeric() && rate->numerator > 0) {
            auto found = evidenceAround(context, sync.time);
            if (!found) {
                return found.error();
            }
            std::optional<CutEvidence> best =
                strongestNear(std::move(*found), frameIndexAt(sync.time, *rate), kSyncReach);
            // Neighbouring sync samples can find the same change.
            if (best && (candidates.empty() || candidates.back().frameIndex < best->frameIndex)) {
                candidates.push_back({best->frameIndex, best->time, std::nullopt});
                context.evidence.add(std::move(*best));
            }
        }
        context.reportProgress(static_cast<double>(k + 1) / static_cast<double>(syncs->size()));
    }
    std::ranges::sort(candidates, {}, &core::EditMarker::frameIndex);
    const auto [first, last] = std::ranges::unique(candidates, {}, &core::EditMarker::frameIndex);
    candidates.erase(first, last);
    return candidates;
}

core::Expected<std::vector<core::EditMarker>> verifyCuts(const DetectionContext& context,
                                                         std::vector<core::EditMarker> candidates)
{
    Markers cuts;
    int weak = 0;
    int gradual = 0;
    int flash = 0;
    for (std::size_t i = 0; i < candidates.size(); ++i) {
        if (context.stopToken.stop_requested()) {
            return scan_error::cancelled();
        }
        const core::EditMarker& candidate = candidates[i];
        std::optional<CutEvidence> decoded;
        const CutEvidence* evidence = context.evidence.find(candidate.frameIndex);
        if (evidence == nullptr && candidate.time.isNumeric()) {
            auto found = evidenceAround(context, candidate.time);
            if (!found) {
                return found.error();
            }
            decoded = strongestNear(std::move(*found), candidate.frameIndex, 2);
            evidence = decoded ? &*decoded : nullptr;
        }
        const CutVerdict verdict = evidence != nullptr ? judgeCut(*evidence) : CutVerdict{};
        if (verdict.isCut) {
            cuts.push_back({evidence->frameIndex, evidence->time, verdict.confidence});
        } else if (verdict.reason == "gradual") {
            ++gradual;
        } else if (verdict.reason == "flash") {
            ++flash;
        } else {
            ++weak;
        }
        context.reportProgress(static_cast<double>(i + 1) / static_cast<double>(candidates.size()));
    }
    std::ranges::sort(cuts, {}, &core::EditMarker::frameIndex);
    const auto [first, last] = std::ranges::unique(cuts, {}, &core::EditMarker::frameIndex);
    cuts.erase(first, last);
    context.log.line("verifyCuts: kept " + std::to_string(cuts.size()) + " of "
                     + std::to_string(candidates.size()) + " candidates (" + std::to_string(weak)
                     + " weak, " + std::to_string(gradual) + " gradual, " + std::to_string(flash)
                     + " flash).");
    return cuts;
}

Detector verifiedDetector()
{
    return Detector{
        .name = std::string(kDefaultDetectorName),
        .summary = "every candidate verified against flashes, dissolves and motion",
        .keyframeStages = {DetectionStage{syncWindowStep, 0.9}, DetectionStage{verifyCuts, 0.1}},
        .fullDecodeStages = {DetectionStage{boundaryPassStep, 0.95},
                             DetectionStage{verifyCuts, 0.05}},
    };
}

}  // namespace kestrin::scan
