#include "robust_statistics.hpp"

#include <kestrin/scan/edit_detection.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <set>
#include <thread>
#include <utility>

namespace kestrin::scan {
namespace {

constexpr float kNormalConsistency = 1.4826F;
constexpr double kSecondsPerMinute = 60.0;

// Cancels the signature reader on every way out of detection, as its owner is done with it.
class CancelOnExit
{
public:
    explicit CancelOnExit(media::FrameReader& reader)
        : reader_(reader)
    {}
    CancelOnExit(const CancelOnExit&) = delete;
    CancelOnExit& operator=(const CancelOnExit&) = delete;
    ~CancelOnExit() { reader_.cancelReading(); }

private:
    media::FrameReader& reader_;
};

// How many of the highest scores stand in for candidates when none stands out.
std::size_t fallbackCount(const core::MediaTime& duration)
{
    const double minutes = duration.seconds() / kSecondsPerMinute;
    if (!std::isfinite(minutes)) {
        return static_cast<std::size_t>(kFallbackCandidatesPerMinute);
    }
    return static_cast<std::size_t>(std::max(minutes, 1.0) * kFallbackCandidatesPerMinute);
}

// The frames whose score stands out from the rest; when none does, the highest scores.
std::vector<Candidate> pickCandidates(const std::vector<FrameScore>& scores,
                                      std::span<const float> scoresInOrder,
                                      const core::MediaTime& duration)
{
    const float centre = median(scoresInOrder);
    const float scale = std::max(kScaleFactor * robustSigma(scoresInOrder, centre), kScaleFloor);
    std::vector<Candidate> candidates;
    for (const FrameScore& scored : scores) {
        if ((scored.score - centre) / scale >= kZThreshold) {
            candidates.push_back({scored.frameIndex, scored.score});
        }
    }
    if (!candidates.empty()) {
        return candidates;
    }
    for (const FrameScore& scored : scores) {
        candidates.push_back({scored.frameIndex, scored.score});
    }
    // Stable, so that of equal scores the earlier frame comes first.
    std::stable_sort(candidates.begin(),
                     candidates.end(),
                     [](const Candidate& a, const Candidate& b) { return a.score > b.score; });
    candidates.resize(std::min(candidates.size(), fallbackCount(duration)));
    return candidates;
}

}  // namespace

int sampleStrideForRate(float framesPerSecond)
{
    if (!(framesPerSecond > 0.0F)) {  // also NaN
        return 4;
    }
    if (framesPerSecond < 26.0F) {
        return 3;
    }
    if (framesPerSecond < 40.0F) {
        return 4;
    }
    return framesPerSecond < 70.0F ? 6 : 8;
}

float median(std::span<const float> values)
{
    std::vector<float> copy(values.begin(), values.end());
    return detail::medianOf(std::span(copy));
}

float robustSigma(std::span<const float> values, float centre)
{
    return detail::medianAbsoluteDeviation(values, centre) * kNormalConsistency;
}

std::vector<Candidate> suppressNearbyCandidates(std::vector<Candidate> candidates,
                                                std::int64_t radius)
{
    std::stable_sort(candidates.begin(),
                     candidates.end(),
                     [](const Candidate& a, const Candidate& b) { return a.score > b.score; });
    // Blocking f - r ... f + r around every kept frame f drops exactly the candidates whose own
    // neighbourhood meets it, i.e. those within 2 r of a kept frame.
    const std::int64_t reach = 2 * radius;
    std::set<std::int64_t> keptFrames;
    std::vector<Candidate> kept;
    for (const Candidate& candidate : candidates) {
        const auto nearest = keptFrames.lower_bound(candidate.frameIndex - reach);
        if (nearest != keptFrames.end() && *nearest <= candidate.frameIndex + reach) {
            continue;
        }
        keptFrames.insert(candidate.frameIndex);
        kept.push_back(candidate);
    }
    std::sort(kept.begin(), kept.end(), [](const Candidate& a, const Candidate& b) {
        return a.frameIndex < b.frameIndex;
    });
    return kept;
}

std::vector<core::EditMarker> mergeNearbyMarkers(std::vector<core::EditMarker> markers,
                                                 std::int64_t distance)
{
    std::stable_sort(
        markers.begin(), markers.end(), [](const core::EditMarker& a, const core::EditMarker& b) {
            return a.frameIndex < b.frameIndex;
        });
    std::vector<core::EditMarker> merged;
    for (core::EditMarker& marker : markers) {
        if (merged.empty() || std::abs(marker.frameIndex - merged.back().frameIndex) > distance) {
            merged.push_back(std::move(marker));
            continue;
        }
        core::EditMarker& last = merged.back();
        if (!last.confidence || !marker.confidence || *last.confidence < *marker.confidence) {
            last = std::move(marker);
        }
    }
    return merged;
}

core::Expected<std::vector<core::EditMarker>> detectEditsByDecoding(
    const media::Asset& asset,
    const media::Track& track,
    const ProgressCallback& reportProgress,
    std::stop_token stopToken,
    const DetectionOptions& options)
{
    const auto duration = asset.duration();
    if (!duration) {
        return duration.error();
    }
    auto reader = makeTrackReader(asset, track, stopToken);
    if (!reader) {
        return reader.error();
    }
    const CancelOnExit cancelSignatureReader(**reader);
    const auto rate = track.nominalFrameRate();
    if (!rate) {
        return rate.error();
    }

    // The progress reported last, so that the refinements never report less than the pass did.
    // The caller reports the end of the scan, also where detection ends early.
    double lastProgress = 0.0;
    SignaturePassState pass(sampleStrideForRate(*rate));
    if (auto status = scoreSignatures(
            **reader, *duration, kSignatureWeight, reportProgress, lastProgress, pass, stopToken);
        !status) {
        return status.error();
    }
    if (pass.scoresInOrder.size() < kMinimumScores) {
        return std::vector<core::EditMarker>{};
    }

    const std::vector<Candidate> candidates = suppressNearbyCandidates(
        pickCandidates(pass.scoresByFrame, pass.scoresInOrder, *duration), kSuppressionRadius);
    if (candidates.empty()) {
        return std::vector<core::EditMarker>{};
    }
    std::vector<std::int64_t> candidateFrames;
    candidateFrames.reserve(candidates.size());
    for (const Candidate& candidate : candidates) {
        candidateFrames.push_back(candidate.frameIndex);
    }

    // The pass has seen every frame the refinements would decode: answer them from its timeline
    // rather than decoding their neighbourhoods again (the answers are the same).
    std::optional<core::FrameRate> timelineRate;
    if (!options.refine && pass.timeline.isUsable()) {
        if (auto exactRate = frameRateRational(track); exactRate) {
            timelineRate = *exactRate;
        }
    }
    const Refiner& refine = options.refine;
    const CandidateRefiner refineCandidate =
        [&](std::int64_t frame,
            std::stop_token token) -> core::Expected<std::optional<core::EditMarker>> {
        if (refine) {
            return refine(frame, asset, track, std::move(token));
        }
        if (timelineRate) {
            if (token.stop_requested()) {
                return scan_error::cancelled();
            }
            return refineFromTimeline(frame, pass.timeline, *timelineRate, duration->seconds());
        }
        return refineAround(frame, asset, track, std::move(token));
    };
    const int width =
        refineWidthFor(options.processorCount.value_or(std::thread::hardware_concurrency()));
    auto refined = refineCandidates(
        candidateFrames, width, refineCandidate, reportProgress, lastProgress, stopToken);
    if (!refined) {
        return refined.error();
    }
    return mergeNearbyMarkers(std::move(*refined), kMergeDistance);
}

}  // namespace kestrin::scan
