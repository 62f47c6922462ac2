#include "robust_statistics.hpp"

#include <kestrin/scan/edit_confirmation.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <string>
#include <utility>

namespace kestrin::scan {

namespace {

// A window of exactly two thumbnails has no other differences to judge its one against, so it
// must clear a higher bar instead.
constexpr double kLoneDifferenceFactor = 1.6;
// Scales a median absolute deviation to a standard deviation for normally distributed values.
constexpr double kMadToSigma = 1.4826;
constexpr double kLeastSpread = 0.000001;
constexpr double kUnknownRateFramesPerSecond = 30.0;
constexpr std::int32_t kFrameDurationTimescale = 600;

double meanLuma(std::span<const std::uint8_t> bytes)
{
    if (bytes.empty()) {
        return 0.0;
    }
    std::uint64_t sum = 0;
    for (const std::uint8_t value : bytes) {
        sum += value;
    }
    return static_cast<double>(sum) / static_cast<double>(bytes.size());
}

// A one-frame flash: the thumbnail after the change differs in brightness from the ones either
// side of the change, which match each other.
bool isFlash(std::span<const LumaPlane> thumbnails, std::size_t m)
{
    if (m < 1 || m + 2 > thumbnails.size() - 1) {
        return false;
    }
    const double before = meanLuma(thumbnails[m - 1].bytes());
    const double after = meanLuma(thumbnails[m + 1].bytes());
    const double later = meanLuma(thumbnails[m + 2].bytes());
    const double tolerance = 2.0 * (std::abs(before - later) + 1.0);
    return std::abs(after - before) > tolerance && std::abs(after - later) > tolerance;
}

}  // namespace

core::MediaTime confirmationFrameDuration(const core::Expected<float>& nominalFrameRate)
{
    const double framesPerSecond = nominalFrameRate && *nominalFrameRate > 0.0F
                                       ? static_cast<double>(*nominalFrameRate)
                                       : kUnknownRateFramesPerSecond;
    return core::MediaTime::fromSeconds(1.0 / framesPerSecond, kFrameDurationTimescale);
}

core::MediaTimeRange confirmationWindow(const core::MediaTime& syncTime,
                                        const core::MediaTime& frameDuration,
                                        const ConfirmationParameters& parameters)
{
    const auto span = [&frameDuration](std::int64_t frames) {
        return frameDuration.multipliedByRatio(static_cast<std::int32_t>(frames), 1);
    };
    const core::MediaTime start = syncTime - span(parameters.framesBefore);
    return core::MediaTimeRange::fromStartEnd(std::max(start, core::MediaTime::zero()),
                                              syncTime + span(parameters.framesAfter));
}

std::optional<ScoredCandidate> scoreWindow(const core::SyncSample& sync,
                                           std::span<const LumaPlane> thumbnails,
                                           const ConfirmationParameters& parameters)
{
    if (thumbnails.size() < 2) {
        return std::nullopt;
    }
    std::vector<double> others;
    others.reserve(thumbnails.size() - 1);
    for (std::size_t j = 0; j + 1 < thumbnails.size(); ++j) {
        others.push_back(detail::meanAbsoluteDifference<double>(thumbnails[j].bytes(),
                                                                thumbnails[j + 1].bytes()));
    }
    const auto largest = std::max_element(others.begin(), others.end());
    const auto m = static_cast<std::size_t>(largest - others.begin());
    ScoredCandidate candidate{sync.index, sync.time, *largest, 0.0, false};
    others.erase(largest);

    bool passes = false;
    bool isWeakPeak = false;
    if (others.empty()) {
        passes = candidate.absAtBoundary >= parameters.absThreshold * kLoneDifferenceFactor;
    } else {
        const double secondMax = *std::max_element(others.begin(), others.end());
        isWeakPeak = secondMax > 0.0 && candidate.absAtBoundary < parameters.peakRatio * secondMax;
        const double median = detail::medianOf(std::span(others));
        const double mad = detail::medianAbsoluteDeviation(others, median);
        candidate.rZ =
            (candidate.absAtBoundary - median) / std::max(mad * kMadToSigma, kLeastSpread);
        passes = candidate.absAtBoundary >= parameters.absThreshold
                 && candidate.rZ >= parameters.zThreshold;
    }
    candidate.keep = passes && !isWeakPeak && !isFlash(thumbnails, m);
    return candidate;
}

std::vector<ScoredCandidate> mergeKeptCandidates(std::vector<ScoredCandidate> candidates,
                                                 std::int64_t minSeparation)
{
    std::erase_if(candidates, [](const ScoredCandidate& candidate) { return !candidate.keep; });
    std::stable_sort(
        candidates.begin(),
        candidates.end(),
        [](const ScoredCandidate& a, const ScoredCandidate& b) { return a.idx < b.idx; });
    std::vector<ScoredCandidate> bests;
    for (const ScoredCandidate& candidate : candidates) {
        if (bests.empty() || candidate.idx - bests.back().idx > minSeparation) {
            bests.push_back(candidate);
        } else if (candidate.absAtBoundary > bests.back().absAtBoundary) {
            // The anchor is the best's index, so it moves with the best.
            bests.back() = candidate;
        }
    }
    return bests;
}

core::Expected<std::vector<core::EditMarker>> confirmEditsNearSyncs(
    const media::Asset& asset,
    const media::Track& track,
    const std::vector<core::SyncSample>& syncSamples,
    const ConfirmationParameters& parameters,
    const ProgressCallback& reportProgress,
    const core::Log& log,
    std::stop_token stopToken)
{
    const auto report = [&reportProgress](double fraction) {
        if (reportProgress) {
            reportProgress(fraction);
        }
    };
    std::vector<core::EditMarker> markers;
    if (syncSamples.empty()) {
        report(1.0);
        return markers;
    }

    const core::MediaTime frameDuration = confirmationFrameDuration(track.nominalFrameRate());
    const auto maxFrames = static_cast<int>(parameters.framesBefore + parameters.framesAfter + 1);
    const auto count = static_cast<double>(syncSamples.size());

    std::vector<ScoredCandidate> candidates;
    for (std::size_t k = 0; k < syncSamples.size(); ++k) {
        if (stopToken.stop_requested()) {
            return scan_error::cancelled();
        }
        const core::SyncSample& sync = syncSamples[k];
        const auto window =
            decodeWindowFrames(asset,
                               track,
                               confirmationWindow(sync.time, frameDuration, parameters),
                               maxFrames,
                               static_cast<int>(parameters.thumbWidth),
                               static_cast<int>(parameters.thumbHeight),
                               stopToken);
        if (!window) {
            return window.error();
        }
        if (auto candidate = scoreWindow(sync, *window, parameters)) {
            candidates.push_back(*candidate);
        }
        report((static_cast<double>(k + 1) / count) * 0.99 + 0.01);
    }

    const std::vector<ScoredCandidate> bests =
        mergeKeptCandidates(std::move(candidates), parameters.minSeparation);
    report(1.0);
    markers.reserve(bests.size());
    for (const ScoredCandidate& best : bests) {
        markers.push_back({best.idx, best.time, std::nullopt});
    }
    log.line("confirmEditsNearSyncs: kept " + std::to_string(markers.size()) + " of "
             + std::to_string(syncSamples.size()) + " sync samples as edit markers.");
    return markers;
}

}  // namespace kestrin::scan
