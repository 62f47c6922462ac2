#include <kestrin/scan/detector.hpp>
#include <kestrin/scan/keyframe_trust.hpp>
#include <kestrin/scan/refinement.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <iterator>
#include <string>
#include <utility>

namespace kestrin::scan {
namespace {

using Markers = std::vector<core::EditMarker>;

// Whether two markers lie on one frame. (std::unique with this rather than std::ranges::unique,
// whose result clang up to 15 cannot compile against the standard library of GCC 12.)
bool sameFrame(const core::EditMarker& a, const core::EditMarker& b)
{
    return a.frameIndex == b.frameIndex;
}

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

// Reads every readable frame of `reader` (not started) as 96 x 54 luma and hands it to
// `onFrame(position, frame, plane)`, `position` counting the frames read from 0.
template <typename OnFrame>
core::Status readFrames(media::FrameReader& reader,
                        const std::stop_token& stopToken,
                        ReadErrors errors,
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
        onFrame(position, *frame, std::as_const(plane));
        ++position;
    }
    if (stopToken.stop_requested()) {
        return scan_error::cancelled();
    }
    if (reader.status() == media::ReaderStatus::failed) {
        return reader.error().value_or(errors.failed());
    }
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

// Reads the frames from kWindowFrames frame durations before `centre` to as many after it,
// preceded by the lead-in when `withLeadIn`, and hands each to `onFrame(frameIndex, frame,
// plane)`, the frame index counted from its time at the track's rate. A track that cannot be read
// as pictures gives no frame.
template <typename OnFrame>
core::Status readAround(const DetectionContext& context,
                        const core::MediaTime& centre,
                        bool withLeadIn,
                        OnFrame onFrame)
{
    const core::Expected<core::FrameRate> rate = frameRateRational(context.track);
    if (!rate) {
        return rate.error();
    }
    if (rate->numerator <= 0) {
        return {};
    }
    const core::MediaTime frame = frameDurationOf(context.track);
    core::MediaTime start = centre;
    core::MediaTime end = centre;
    for (int i = 0; i < kWindowFrames; ++i) {
        start = start - frame;
        end = end + frame;
    }
    start = std::max(start, core::MediaTime::zero());
    media::FrameReaderSettings settings{kSignatureWidth,
                                        kSignatureHeight,
                                        media::LumaRange::full,
                                        core::MediaTimeRange::fromStartEnd(start, end)};
    settings.deliversLeadIn = withLeadIn;
    auto reader = context.asset.makeFrameReader(context.track, settings, context.stopToken);
    if (!reader) {
        return reader.error();
    }
    if (*reader == nullptr) {
        return {};
    }
    return readFrames(**reader,
                      context.stopToken,
                      kWindowErrors,
                      [&](std::int64_t, const media::LumaFrame& read, const LumaPlane& plane) {
                          onFrame(frameIndexAt(read.presentationTime, *rate), read, plane);
                      });
}

// The evidence of the changes among the frames kWindowFrames either side of `centre`.
core::Expected<std::vector<CutEvidence>> evidenceAround(const DetectionContext& context,
                                                        const core::MediaTime& centre)
{
    BoundaryAnalyzer analyzer;
    const core::Status read = readAround(
        context,
        centre,
        false,
        [&analyzer](std::int64_t index, const media::LumaFrame& frame, const LumaPlane& plane) {
            analyzer.push(index, frame.presentationTime, plane);
        });
    if (!read) {
        return read.error();
    }
    analyzer.finish();
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

// The cuts among the changes `found` between the frames the keyframe windows delivered, away from
// the candidates the windows gave: each with its evidence in the store. A change between frames
// that are not neighbours is pinned to its frame by decoding the frames around it.
core::Expected<Markers> cutsWithoutSyncSample(const DetectionContext& context,
                                              std::vector<CutEvidence> found,
                                              const Markers& nearSyncs)
{
    Markers cuts;
    for (CutEvidence& evidence : found) {
        const bool isNearSync = std::ranges::any_of(nearSyncs, [&](const core::EditMarker& m) {
            return std::abs(m.frameIndex - evidence.frameIndex) <= kSyncReach;
        });
        if (isNearSync || !judgeCut(evidence).isCut) {
            continue;
        }
        if (evidence.firstPossibleFrame < evidence.frameIndex) {
            auto around = evidenceAround(context, evidence.time);
            if (!around) {
                return around.error();
            }
            std::optional<CutEvidence> pinned =
                strongestNear(std::move(*around),
                              evidence.frameIndex,
                              evidence.frameIndex - evidence.firstPossibleFrame);
            if (!pinned) {
                continue;
            }
            evidence = std::move(*pinned);
        }
        cuts.push_back({evidence.frameIndex, evidence.time, std::nullopt});
        context.evidence.add(std::move(evidence));
    }
    return cuts;
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
    const core::Status read = readFrames(
        **reader,
        context.stopToken,
        kPassErrors,
        [&](std::int64_t position, const media::LumaFrame& frame, const LumaPlane& plane) {
            if (position % kProgressInterval == 0) {
                const double fraction = frame.presentationTime.seconds() / seconds;
                context.reportProgress(std::isfinite(fraction) ? std::clamp(fraction, 0.0, 1.0)
                                                               : 0.0);
                collect();
            }
            analyzer.push(position, frame.presentationTime, plane);
        });
    if (!read) {
        return read.error();
    }
    analyzer.finish();
    collect();
    return candidates;
}

core::Expected<std::vector<core::EditMarker>> syncWindowStep(const DetectionContext& context,
                                                             std::vector<core::EditMarker>)
{
    const core::Expected<std::vector<core::SyncSample>> syncs = syncSamplesOrSwitch(context);
    if (!syncs) {
        return syncs.error();
    }
    if (syncs->empty()) {
        return Markers{};
    }
    const core::Expected<core::FrameRate> rate = frameRateRational(context.track);
    if (!rate) {
        return rate.error();
    }
    // Every frame the windows deliver goes through one analyzer in time order: the windows' own,
    // consecutive, and the reference frames decoded on the way to them, so nearly the whole track,
    // thinned of the frames nothing refers to.
    BoundaryAnalyzer analyzer;
    std::vector<CutEvidence> found;
    core::MediaTime last = core::MediaTime::negativeInfinity();
    for (std::size_t k = 0; k < syncs->size(); ++k) {
        if (context.stopToken.stop_requested()) {
            return scan_error::cancelled();
        }
        if ((*syncs)[k].time.isNumeric()) {
            const core::Status read = readAround(
                context,
                (*syncs)[k].time,
                true,
                [&](std::int64_t index, const media::LumaFrame& frame, const LumaPlane& plane) {
                    // A reader that seeks starts its lead-in at a sync sample, which may lie
                    // before the last window's end.
                    if (frame.presentationTime > last) {
                        analyzer.push(index, frame.presentationTime, plane);
                        last = frame.presentationTime;
                    }
                });
            if (!read) {
                return read.error();
            }
            std::ranges::move(analyzer.takeEvidence(), std::back_inserter(found));
        }
        context.reportProgress(static_cast<double>(k + 1) / static_cast<double>(syncs->size()));
    }
    analyzer.finish();
    std::ranges::move(analyzer.takeEvidence(), std::back_inserter(found));

    // Near each sync sample the strongest change is the candidate, judged later; elsewhere the
    // changes that pass the verification are the cuts the encoder gave no sync sample.
    Markers candidates;
    for (const core::SyncSample& sync : *syncs) {
        if (!sync.time.isNumeric()) {
            continue;
        }
        const std::int64_t syncFrame = frameIndexAt(sync.time, *rate);
        const auto best = std::ranges::max_element(found, {}, [&](const CutEvidence& evidence) {
            return std::abs(evidence.frameIndex - syncFrame) <= kSyncReach ? evidence.residual
                                                                           : -1.0F;
        });
        if (best != found.end() && std::abs(best->frameIndex - syncFrame) <= kSyncReach
            && context.evidence.find(best->frameIndex) == nullptr) {
            candidates.push_back({best->frameIndex, best->time, std::nullopt});
            context.evidence.add(*best);
        }
    }
    auto away = cutsWithoutSyncSample(context, std::move(found), candidates);
    if (!away) {
        return away.error();
    }
    candidates.insert(candidates.end(), away->begin(), away->end());
    std::ranges::sort(candidates, {}, &core::EditMarker::frameIndex);
    candidates.erase(std::unique(candidates.begin(), candidates.end(), sameFrame),
                     candidates.end());
    return candidates;
}

core::Expected<std::vector<core::EditMarker>> verifyCuts(const DetectionContext& context,
                                                         std::vector<core::EditMarker> candidates)
{
    Markers cuts;
    // Rejections by reason, in judgeCut's order; a candidate without evidence counts as weak.
    std::array<std::pair<std::string_view, int>, 4> rejected{
        {{"weak", 0}, {"flash", 0}, {"gradual", 0}, {"lighting", 0}}};
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
        } else {
            auto reason = std::ranges::find(
                rejected, verdict.reason, &std::pair<std::string_view, int>::first);
            (reason != rejected.end() ? reason : rejected.begin())->second += 1;
        }
        context.reportProgress(static_cast<double>(i + 1) / static_cast<double>(candidates.size()));
    }
    std::ranges::sort(cuts, {}, &core::EditMarker::frameIndex);
    cuts.erase(std::unique(cuts.begin(), cuts.end(), sameFrame), cuts.end());
    std::string line = "verifyCuts: kept " + std::to_string(cuts.size()) + " of "
                       + std::to_string(candidates.size()) + " candidates (";
    for (const auto& [reason, count] : rejected) {
        line += std::to_string(count) + " " + std::string(reason)
                + (reason == rejected.back().first ? ")." : ", ");
    }
    context.log.line(line);
    return cuts;
}

Detector verifiedDetector()
{
    return Detector{
        .name = std::string(kDefaultDetectorName),
        .summary = "every candidate verified: no flashes, dissolves, motion or lighting",
        .keyframeStages = {DetectionStage{syncWindowStep, 0.9}, DetectionStage{verifyCuts, 0.1}},
        .fullDecodeStages = {DetectionStage{boundaryPassStep, 0.95},
                             DetectionStage{verifyCuts, 0.05}},
    };
}

}  // namespace kestrin::scan
