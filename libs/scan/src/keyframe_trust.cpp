#include <kestrin/scan/keyframe_trust.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace kestrin::scan {

namespace {

constexpr std::string_view kTrustPrefix = "keyframes trustable?: ";
// U+2014, between the verdict and its reason.
constexpr std::string_view kDash = "\xE2\x80\x94";
// A mode of one gap with at least this share means (nearly) every sample is a keyframe.
constexpr double kMostlyOneShare = 0.6;
constexpr std::size_t kLoggedGapLimit = 50;
constexpr std::size_t kReservedGaps = 2048;

// share x 100 truncated toward zero (0.857 -> 85).
std::int64_t percent(double share)
{
    return static_cast<std::int64_t>(std::trunc(share * 100.0));
}

// "[12, 12, 7]": the first 50 gaps at most.
std::string gapSample(std::span<const std::int64_t> gaps)
{
    return fmt::format("[{}]", fmt::join(gaps.first(std::min(gaps.size(), kLoggedGapLimit)), ", "));
}

std::string refusal(std::string_view reason)
{
    return fmt::format("{}false {} {}", kTrustPrefix, kDash, reason);
}

// The first description's codec as four characters; "????" when the track has none, its
// descriptions cannot be loaded, or the codec is unknown (0).
media::FourCC codecOf(const media::Track& track)
{
    const auto descriptions = track.formatDescriptions();
    if (!descriptions || descriptions->empty()) {
        return 0;
    }
    return descriptions->front().mediaSubType;
}

std::string codecText(media::FourCC codec)
{
    return codec == 0 ? std::string("????") : media::fourCCText(codec);
}

struct GapWalk
{
    std::vector<std::int64_t> gaps;
    std::int64_t maxGap = 0;
};

// Moves `cursor` forward in presentation order from where it stands, recording the gaps between
// sync samples, until a sample presented after `horizonSeconds` or the end of the track.
// Absent when the stop request ended the walk.
std::optional<GapWalk> walkGaps(media::SampleCursor& cursor,
                                double horizonSeconds,
                                const std::stop_token& stopToken)
{
    GapWalk walk;
    walk.gaps.reserve(kReservedGaps);
    std::int64_t index = 0;
    std::int64_t previousSyncIndex = 0;
    bool hasPreviousSync = false;
    while (true) {
        if (stopToken.stop_requested()) {
            return std::nullopt;
        }
        const core::MediaTime time = cursor.presentationTimeStamp();
        if (time.isNumeric()) {
            const double seconds = time.seconds();
            if (seconds >= 0.0 && seconds > horizonSeconds) {
                break;
            }
        }
        if (cursor.currentSampleIsFullSync()) {
            if (hasPreviousSync) {
                const std::int64_t gap = index - previousSyncIndex;
                if (gap >= 1) {
                    walk.gaps.push_back(gap);
                    walk.maxGap = std::max(walk.maxGap, gap);
                }
            }
            previousSyncIndex = index;
            hasPreviousSync = true;
        }
        if (cursor.stepInPresentationOrder(1) == 0) {
            break;
        }
        ++index;
    }
    return walk;
}

}  // namespace

bool isIntraOnlyCodec(media::FourCC codec)
{
    constexpr auto kCodecs = intraOnlyCodecs();
    return std::find(kCodecs.begin(), kCodecs.end(), codec) != kCodecs.end();
}

GapStatistics summariseGaps(std::span<const std::int64_t> gaps, std::int64_t modeTolerance)
{
    GapStatistics statistics;
    if (gaps.empty()) {
        return statistics;
    }
    statistics.gapCount = static_cast<std::int64_t>(gaps.size());
    const auto total = static_cast<double>(gaps.size());

    // The histogram as runs of equal values in a sorted copy. Walking the values in ascending
    // order and replacing the mode only on a strictly higher count makes the smallest of equally
    // frequent values the mode.
    std::vector<std::int64_t> sorted(gaps.begin(), gaps.end());
    std::sort(sorted.begin(), sorted.end());
    statistics.maxGap = sorted.back();
    std::int64_t modeCount = 0;
    double entropyBits = 0.0;
    for (std::size_t runStart = 0; runStart < sorted.size();) {
        std::size_t runEnd = runStart + 1;
        while (runEnd < sorted.size() && sorted[runEnd] == sorted[runStart]) {
            ++runEnd;
        }
        const auto count = static_cast<std::int64_t>(runEnd - runStart);
        if (count > modeCount) {
            modeCount = count;
            statistics.mode = sorted[runStart];
        }
        const double p = static_cast<double>(count) / total;
        entropyBits -= p * std::log2(p);
        ++statistics.distinct;
        runStart = runEnd;
    }

    for (const std::int64_t gap : gaps) {
        // Written without subtraction so that absurd gap values cannot overflow.
        const bool isNear = gap >= statistics.mode ? gap - statistics.mode <= modeTolerance
                                                   : statistics.mode - gap <= modeTolerance;
        if (isNear) {
            ++statistics.nearCount;
        }
    }
    statistics.share = static_cast<double>(statistics.nearCount) / total;
    statistics.uniqueRatio = static_cast<double>(statistics.distinct) / total;
    if (statistics.distinct >= 2) {
        statistics.entropy = entropyBits / std::log2(static_cast<double>(statistics.distinct));
    }
    return statistics;
}

std::int64_t maxCadenceForFrameRate(double framesPerSecond)
{
    constexpr double kUpper = 300.0;
    constexpr std::int64_t kLower = 12;
    constexpr double kUnknownRateCadence = 150.0;
    // `framesPerSecond > 0` is false for NaN, so an unparsable rate counts as unknown. Clamping
    // before the conversion keeps infinite and huge rates from overflowing it.
    const double fiveSeconds = framesPerSecond > 0.0 ? framesPerSecond * 5.0 : kUnknownRateCadence;
    const auto truncated = static_cast<std::int64_t>(std::min(fiveSeconds, kUpper));
    return std::max(truncated, kLower);
}

bool irregularKeyframes(const GapStatistics& statistics,
                        std::int64_t maxCadence,
                        const KeyframeTrustParameters& parameters)
{
    const bool isRegularCadence = statistics.mode >= 2 && statistics.mode <= maxCadence
                                  && statistics.share >= parameters.regularShare;
    if (isRegularCadence) {
        return false;
    }
    return statistics.entropy >= parameters.entropyThreshold
           || statistics.uniqueRatio >= parameters.uniqueRatioThreshold;
}

core::Expected<bool> keyframesTrustable(const media::Asset& asset,
                                        const media::Track& track,
                                        const KeyframeTrustParameters& parameters,
                                        const core::Log& log,
                                        const std::stop_token& stopToken)
{
    const auto canProvideCursors = track.canProvideSampleCursors();
    if (!canProvideCursors) {
        return canProvideCursors.error();
    }
    if (!*canProvideCursors) {
        log.line(refusal("track cannot provide sample cursors"));
        return false;
    }
    const std::unique_ptr<media::SampleCursor> cursor =
        track.makeSampleCursorAtFirstSampleInDecodeOrder(stopToken);
    if (stopToken.stop_requested()) {
        return scan_error::cancelled();
    }
    if (!cursor) {
        log.line(refusal("failed to make sample cursor"));
        return false;
    }
    const auto duration = asset.duration();
    if (!duration) {
        return duration.error();
    }
    const auto nominalFrameRate = track.nominalFrameRate();
    if (!nominalFrameRate) {
        return nominalFrameRate.error();
    }

    // A duration without a value (invalid or indefinite) does not cap the horizon.
    const double durationSeconds = duration->seconds();
    const double horizonSeconds = std::isnan(durationSeconds)
                                      ? parameters.maxScanSeconds
                                      : std::min(durationSeconds, parameters.maxScanSeconds);
    const std::optional<GapWalk> walked = walkGaps(*cursor, horizonSeconds, stopToken);
    if (!walked) {
        return scan_error::cancelled();
    }
    const GapWalk& walk = *walked;
    const std::span<const std::int64_t> gaps(walk.gaps);

    if (static_cast<std::int64_t>(gaps.size()) < parameters.minIntervals) {
        log.line(refusal(fmt::format("insufficient intervals (gaps={})", gaps.size())));
        return false;
    }

    const GapStatistics statistics = summariseGaps(gaps, parameters.modeTolerance);
    const media::FourCC codec = codecOf(track);
    // An unknown rate (0 or less; NaN likewise) is reported and treated as 0.
    const float rate = *nominalFrameRate;
    const double fps = rate > 0.0F ? static_cast<double>(rate) : 0.0;
    const std::string rateAndCodec =
        "fps=" + core::shortestDecimal(fps) + ", codec=" + codecText(codec);

    if (isIntraOnlyCodec(codec)) {
        log.line(
            refusal("codec is intra-only. " + rateAndCodec + ", gaps sample=" + gapSample(gaps)));
        return false;
    }
    const std::int64_t maxCadence = maxCadenceForFrameRate(fps);
    if (statistics.mode == 1 && statistics.share >= kMostlyOneShare) {
        log.line(refusal(fmt::format("gaps mostly 1. {}, mode=1, share={}%, gaps sample={}",
                                     rateAndCodec,
                                     percent(statistics.share),
                                     gapSample(gaps))));
        return false;
    }

    const bool verdict = irregularKeyframes(statistics, maxCadence, parameters);
    log.line(
        fmt::format("{}{} {} {}, mode={}, share={}%, uniqueRatio={:.2f}, H={:.2f}, "
                    "suppress={}, gaps sample={}",
                    kTrustPrefix,
                    verdict ? "true" : "false",
                    kDash,
                    rateAndCodec,
                    statistics.mode,
                    percent(statistics.share),
                    statistics.uniqueRatio,
                    statistics.entropy,
                    walk.maxGap,
                    gapSample(gaps)));
    return verdict;
}

core::Expected<std::vector<core::SyncSample>> collectSyncSamplesFast(
    const media::Track& track, const core::Log& log, const std::stop_token& stopToken)
{
    const auto canProvideCursors = track.canProvideSampleCursors();
    if (!canProvideCursors) {
        return canProvideCursors.error();
    }
    std::vector<core::SyncSample> syncs;
    if (!*canProvideCursors) {
        return syncs;
    }
    const std::unique_ptr<media::SampleCursor> cursor =
        track.makeSampleCursorAtFirstSampleInDecodeOrder(stopToken);
    if (stopToken.stop_requested()) {
        return scan_error::cancelled();
    }
    if (!cursor) {
        return syncs;
    }

    std::int64_t index = 0;
    while (true) {
        if (stopToken.stop_requested()) {
            return scan_error::cancelled();
        }
        if (cursor->currentSampleIsFullSync()) {
            syncs.push_back(core::SyncSample{index, cursor->presentationTimeStamp(), std::nullopt});
        }
        if (cursor->stepInDecodeOrder(1) == 0) {
            break;
        }
        ++index;
    }

    std::string line = fmt::format("collectSyncSamplesFast: found {} syncs.", syncs.size());
    if (!syncs.empty()) {
        const auto describe = [](const core::SyncSample& sync) {
            return fmt::format(
                "(idx:{} t:{})", sync.index, core::shortestDecimal(sync.time.seconds()));
        };
        line += fmt::format(" first={} last={}", describe(syncs.front()), describe(syncs.back()));
    }
    log.line(line);
    return syncs;
}

}  // namespace kestrin::scan
