#pragma once

#include <kestrin/core/error.hpp>
#include <kestrin/core/log.hpp>
#include <kestrin/core/sync_sample.hpp>
#include <kestrin/media/asset.hpp>
#include <kestrin/media/format_description.hpp>

#include <array>
#include <cstdint>
#include <span>
#include <stop_token>
#include <vector>

namespace kestrin::scan {

/// The thresholds of keyframesTrustable, with the values the scan uses.
struct KeyframeTrustParameters
{
    /// Presentation-time horizon of the gap walk in seconds; the asset's duration caps it further.
    double maxScanSeconds = 300.0;
    /// Fewest gaps between sync samples needed for any verdict but "insufficient intervals".
    std::int64_t minIntervals = 8;
    /// A gap counts toward the mode's share when it differs from the mode by at most this.
    std::int64_t modeTolerance = 1;
    /// Share at or above which a mode of 2 or more samples (up to the maximum cadence) is taken as
    /// a regular keyframe cadence.
    double regularShare = 0.85;
    /// Normalised gap entropy at or above which the keyframes are trusted.
    double entropyThreshold = 0.6;
    /// Ratio of distinct gaps to gaps at or above which the keyframes are trusted.
    double uniqueRatioThreshold = 0.4;
};

/// The codecs whose every sample is a keyframe (ProRes, JPEG / Motion-JPEG and DV families), in a
/// fixed order; keyframes of these are never trusted. Note "dvc " ends in a space.
constexpr std::array<media::FourCC, 12> intraOnlyCodecs()
{
    return {media::fourCC("apcs"),
            media::fourCC("ap4h"),
            media::fourCC("apch"),
            media::fourCC("apcn"),
            media::fourCC("apco"),
            media::fourCC("jpeg"),
            media::fourCC("mjpa"),
            media::fourCC("mjpg"),
            media::fourCC("dvc "),
            media::fourCC("dvcp"),
            media::fourCC("dvh1"),
            media::fourCC("dvhd")};
}

/// Whether `codec` is one of intraOnlyCodecs() (exact, case-sensitive). Constant time.
bool isIntraOnlyCodec(media::FourCC codec);

/// What the spacing of a track's sync samples looks like: the figures keyframesTrustable decides
/// on and logs.
struct GapStatistics
{
    std::int64_t gapCount = 0;
    /// The largest gap; 0 without gaps.
    std::int64_t maxGap = 0;
    /// The most frequent gap; among equally frequent gaps the smallest. 0 without gaps.
    std::int64_t mode = 0;
    /// Gaps within the mode tolerance of the mode.
    std::int64_t nearCount = 0;
    /// nearCount / gapCount; 0 without gaps.
    double share = 0.0;
    /// Number of different gap values.
    std::int64_t distinct = 0;
    /// distinct / gapCount; 0 without gaps.
    double uniqueRatio = 0.0;
    /// Shannon entropy (base 2) of the gap frequencies divided by log2(distinct), in [0, 1];
    /// 0 when fewer than two different gaps.
    double entropy = 0.0;
};

/// The statistics of `gaps` (sample counts between consecutive sync samples, in walk order).
/// Cost: one sorted copy of the gaps, O(n log n).
GapStatistics summariseGaps(std::span<const std::int64_t> gaps, std::int64_t modeTolerance);

/// The longest keyframe interval, in samples, still taken as a regular cadence at
/// `framesPerSecond`: five seconds' worth, truncated, kept within 12...300; 150 when the rate is
/// unknown (0 or less, or not a number). Any rate, however absurd, gives a value in range.
std::int64_t maxCadenceForFrameRate(double framesPerSecond);

/// The last step of the trust decision, for a track that is neither intra-only nor mostly gaps of
/// one: false for a regular cadence (mode from 2 up to `maxCadence` with a share of at least
/// regularShare); otherwise true when the entropy or else the unique ratio reaches its
/// threshold, false when neither does.
bool irregularKeyframes(const GapStatistics& statistics,
                        std::int64_t maxCadence,
                        const KeyframeTrustParameters& parameters);

/// Decides whether the sync samples of `track` (a video track of `asset`) can stand as the
/// candidate positions of edits, from the container's sample table alone (nothing is decoded).
///
/// Walks the track in presentation order from its first sample in decode order up to
/// min(asset duration, maxScanSeconds) of presentation time (a sample without a numeric time never
/// ends the walk), collecting the gaps between sync samples, then returns, first match deciding:
///  - false when the track cannot provide sample cursors, or no cursor can be made;
///  - false with fewer than minIntervals gaps;
///  - false for an intra-only codec (intraOnlyCodecs());
///  - false when the mode gap is 1 with a share of at least 0.6;
///  - otherwise irregularKeyframes() with maxCadenceForFrameRate() of the nominal frame rate.
/// Each outcome writes exactly one line to `log` ("keyframes trustable?: ...").
///
/// Errors: a failed load of canProvideSampleCursors, the asset's duration or the track's nominal
/// frame rate is returned unchanged, with nothing logged. A failed load of the format descriptions
/// only makes the codec unknown ("????"). An unknown frame rate (0 or less) logs as 0.0.
///
/// Cost: one step per sample within the horizon; no allocation per sample beyond the gap list.
/// Runs on the caller's thread. A stop request through `stopToken` is seen before each sample
/// (and ends the cursor's blocking reads): the result is then scan_error::cancelled(), with
/// nothing logged.
core::Expected<bool> keyframesTrustable(const media::Asset& asset,
                                        const media::Track& track,
                                        const KeyframeTrustParameters& parameters,
                                        const core::Log& log,
                                        const std::stop_token& stopToken = {});

/// Every sync sample of `track` in decode order: its decode-order index (0 for the first sample,
/// counting every sample) and presentation time; the duration is left absent.
///
/// An empty list, with nothing logged, when the track cannot provide sample cursors or no cursor
/// can be made. Otherwise writes one line to `log`: "collectSyncSamplesFast: found N syncs." with
/// the first and the last entry, or "collectSyncSamplesFast: found 0 syncs." when there is none.
///
/// Errors: a failed load of canProvideSampleCursors is returned unchanged.
///
/// Cost: one step per sample of the whole track (no time limit: a file without a sample table is
/// demuxed to its end); allocates only the result. Runs on the caller's thread. A stop request
/// through `stopToken` is seen before each sample (and ends the cursor's blocking reads): the
/// result is then scan_error::cancelled(), with nothing logged.
core::Expected<std::vector<core::SyncSample>> collectSyncSamplesFast(
    const media::Track& track, const core::Log& log, const std::stop_token& stopToken = {});

}  // namespace kestrin::scan
