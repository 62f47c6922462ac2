#include <kestrin/media_testing/synthetic_asset.hpp>
#include <kestrin/scan/keyframe_trust.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <iterator>
#include <optional>
#include <sstream>
#include <stop_token>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrin::core {
void PrintTo(const SyncSample& sync, std::ostream* out)
{
    *out << sync.index << "@" << sync.time.seconds() << (sync.duration ? "+duration" : "");
}
}  // namespace kestrin::core

namespace kestrin::scan {
namespace {

using core::MediaTime;
using media_testing::SyntheticTrack;
using Gaps = std::vector<std::int64_t>;
using Lines = std::vector<std::string>;

// 25 samples a second: `firstSync` ordinary samples, a sync sample, the next ones `gaps` apart,
// then three ordinary samples.
SyntheticTrack gapTrack(const Gaps& gaps,
                        const char (&subType)[5] = "avc1",
                        core::Expected<float> rate = 25.0F,
                        std::int64_t firstSync = 0)
{
    SyntheticTrack track;
    track.nominalFrameRate = std::move(rate);
    track.formatDescriptions =
        std::vector{media::FormatDescription{media::MediaType::video, media::fourCC(subType)}};
    std::int64_t nextSync = firstSync;
    auto gap = gaps.begin();
    for (std::int64_t i = 0; gap != gaps.end() || i <= nextSync + 3; ++i) {
        track.samples.push_back({MediaTime::make(i, 25), i == nextSync, {}});
        nextSync += i == nextSync && gap != gaps.end() ? *gap++ : 0;
    }
    return track;
}

// B-frame-like decode order: after frame 0, each pair of frames is decoded later frame first
// (presentation 0, 2, 1, 4, 3, ...); every `syncEvery`-th presented frame is a sync sample.
SyntheticTrack reorderedTrack(std::int64_t count, std::int64_t syncEvery)
{
    SyntheticTrack track = gapTrack({});
    track.samples.clear();
    for (std::int64_t decode = 0; decode < count; ++decode) {
        const std::int64_t shown = decode == 0 ? 0 : (decode % 2 == 1 ? decode + 1 : decode - 1);
        track.samples.push_back({MediaTime::make(shown, 25), shown % syncEvery == 0, {}});
    }
    return track;
}

// Runs `call` on `track` in an asset of `duration`: its outcome (printed, or "error <text>"), then
// the lines it logged.
template <typename Call>
Lines logged(SyntheticTrack track, core::Expected<MediaTime> duration, const Call& call)
{
    const media_testing::SyntheticAsset asset(std::move(duration), {std::move(track)});
    Lines lines{""};
    const core::Log log([&lines](std::string_view line) { lines.emplace_back(line); });
    const auto result = call(asset, *asset.tracks()->front(), log);
    lines[0] = result ? ::testing::PrintToString(*result) : "error " + result.error().description;
    return lines;
}

Lines trust(SyntheticTrack track,
            core::Expected<MediaTime> duration = MediaTime::make(3600, 1),
            const KeyframeTrustParameters& parameters = {})
{
    return logged(std::move(track), std::move(duration), [&](auto& asset, auto& each, auto& log) {
        return keyframesTrustable(asset, each, parameters, log);
    });
}

Lines collect(SyntheticTrack track)
{
    return logged(std::move(track), MediaTime::make(3600, 1), [](auto&, auto& each, auto& log) {
        return collectSyncSamplesFast(each, log);
    });
}

// The outcome and the line of a decision: "<verdict> — <text>", then the first 50 `gaps` as a
// sample when there are any.
Lines decision(const std::string& verdict, const std::string& text, const Gaps& gaps = {})
{
    std::string line = "keyframes trustable?: " + verdict + " — " + text;
    for (std::size_t i = 0; i < std::min<std::size_t>(gaps.size(), 50); ++i) {
        line += (i == 0 ? ", gaps sample=[" : ", ") + std::to_string(gaps[i]);
    }
    return {verdict, line + (gaps.empty() ? "" : "]")};
}

Lines tooFewGaps(int count)
{
    return decision("false", "insufficient intervals (gaps=" + std::to_string(count) + ")");
}

// A verdict on the gap statistics from its figures: "true 25.0 avc1 12 100% 0.10 0.00 12" stands
// for "true — fps=25.0, codec=avc1, mode=12, share=100%, uniqueRatio=0.10, H=0.00, suppress=12".
Lines judged(const std::string& values, const Gaps& gaps)
{
    std::istringstream in(values);
    const std::vector<std::string> v{std::istream_iterator<std::string>(in), {}};
    return decision(v[0],
                    "fps=" + v[1] + ", codec=" + v[2] + ", mode=" + v[3] + ", share=" + v[4]
                        + ", uniqueRatio=" + v[5] + ", H=" + v[6] + ", suppress=" + v[7],
                    gaps);
}

TEST(KeyframeTrust, EachDecisionLogsItsLine)
{
    const Gaps ones = {1, 1, 2, 1, 1, 1, 1, 1, 5, 9};
    const Gaps fewOnes = {1, 1, 1, 1, 1, 4, 7, 10, 13, 16};
    const Gaps alternating = {140, 141, 140, 141, 140, 141, 140, 141};
    const Gaps different = {10, 20, 30, 40, 50, 60, 70, 80};
    const Gaps tied = {9, 9, 40, 3, 3, 20, 40, 20};
    const Gaps twelves(10, 12);
    const Gaps far(8, 250);
    Gaps sixty(50, 12);
    sixty.insert(sixty.end(), 10, 13);
    // The gap count is checked before the codec.
    EXPECT_EQ(trust(gapTrack(Gaps(7, 1), "apcn")), tooFewGaps(7));
    EXPECT_EQ(trust(gapTrack(Gaps(8, 1), "apcn")),
              decision("false", "codec is intra-only. fps=25.0, codec=apcn", Gaps(8, 1)));
    EXPECT_EQ(trust(gapTrack(ones)),
              decision("false", "gaps mostly 1. fps=25.0, codec=avc1, mode=1, share=80%", ones));
    // Gaps of one below a share of 0.6 go on to the entropy.
    EXPECT_EQ(trust(gapTrack(fewOnes)), judged("true 25.0 avc1 1 50% 0.60 0.84 16", fewOnes));
    // Beyond the maximum cadence of 125 at 25 fps; all equal, so no entropy either.
    EXPECT_EQ(trust(gapTrack(far)), judged("false 25.0 avc1 250 100% 0.12 0.00 250", far));
    // An unknown rate logs as 0.0 and takes a cadence of up to 150 as regular.
    EXPECT_EQ(trust(gapTrack(alternating, "avc1", -1.0F)),
              judged("false 0.0 avc1 140 100% 0.25 1.00 141", alternating));
    // Samples before the first sync sample make no gap.
    EXPECT_EQ(trust(gapTrack(different, "avc1", 25.0F, 5)),
              judged("true 25.0 avc1 10 12% 1.00 1.00 80", different));
    // The smallest of equally frequent gaps is the mode.
    EXPECT_EQ(trust(gapTrack(tied)), judged("true 25.0 avc1 3 25% 0.50 1.00 40", tied));
    // Descriptions that fail to load leave the codec unknown.
    SyntheticTrack noCodec = gapTrack(twelves, "avc1", 29.97F);
    noCodec.formatDescriptions = core::Error{"test", 1, "descriptions"};
    EXPECT_EQ(trust(noCodec),
              judged("false 29.969999313354492 ???? 12 100% 0.10 0.00 12", twelves));
    // A regular cadence wins over a high entropy; the sample shows the first 50 gaps only.
    EXPECT_EQ(trust(gapTrack(sixty)), judged("false 25.0 avc1 12 100% 0.03 0.65 13", sixty));
    // A regular cadence of 12 at 25 fps, found because the walk goes in presentation order:
    // decoded, these sync samples are 11, 12, 12, ... apart.
    EXPECT_EQ(trust(reorderedTrack(12 * 8 + 3, 12)),
              judged("false 25.0 avc1 12 100% 0.12 0.00 12", Gaps(8, 12)));
}

TEST(KeyframeTrust, GapWalkEndsAtTheHorizon)
{
    // One sync sample a second for 20 s (t = 0 ... 19), then three sync samples without a time,
    // which the cursor presents last. A high minIntervals makes every run report its gap count.
    SyntheticTrack track = gapTrack(Gaps(19, 25));
    track.samples.insert(track.samples.end(), 3, {MediaTime::invalid(), true, {}});
    const KeyframeTrustParameters counting{.minIntervals = 1000};
    const KeyframeTrustParameters shortScan{.maxScanSeconds = 5.0, .minIntervals = 1000};
    // A sample at the horizon still counts; a duration without a value caps nothing.
    EXPECT_EQ(trust(track, MediaTime::make(7, 1), counting), tooFewGaps(7));
    EXPECT_EQ(trust(track, MediaTime::make(75, 10), counting), tooFewGaps(7));
    EXPECT_EQ(trust(track, MediaTime::make(3600, 1), shortScan), tooFewGaps(5));
    EXPECT_EQ(trust(track, MediaTime::indefinite(), shortScan), tooFewGaps(5));
    EXPECT_EQ(trust(track, MediaTime::make(3600, 1), counting), tooFewGaps(22));

    // Times that are not numbers never end the walk, however short the horizon.
    std::ranges::for_each(track.samples, [](auto& each) { each.presentationTime = {}; });
    EXPECT_EQ(trust(track, MediaTime::make(1, 10), counting), tooFewGaps(22));
}

TEST(KeyframeTrust, NoCursorsGiveNoVerdictAndNoSyncsAndLoadFailuresArePassedOn)
{
    SyntheticTrack noCursors = gapTrack(Gaps(10, 3));
    noCursors.canProvideSampleCursors = false;
    SyntheticTrack cursorsFail = gapTrack(Gaps(10, 3));
    cursorsFail.canProvideSampleCursors = core::Error{"test", 1, "cursors"};

    EXPECT_EQ(trust(noCursors), decision("false", "track cannot provide sample cursors"));
    EXPECT_EQ(trust(SyntheticTrack{}), decision("false", "failed to make sample cursor"));
    EXPECT_EQ(trust(cursorsFail), Lines{"error cursors"});
    EXPECT_EQ(trust(gapTrack(Gaps(10, 3)), core::Error{"test", 2, "duration"}),
              Lines{"error duration"});
    EXPECT_EQ(trust(gapTrack(Gaps(10, 3), "avc1", core::Error{"test", 3, "rate"})),
              Lines{"error rate"});
    // Collecting sync samples: nothing logged without cursors, a failed load passed on.
    EXPECT_EQ(collect(noCursors), Lines{"{}"});
    EXPECT_EQ(collect(SyntheticTrack{}), Lines{"{}"});
    EXPECT_EQ(collect(cursorsFail), Lines{"error cursors"});
}

// The figures and rules behind the last step of the decision, where the decisions above leave
// them open: the histogram's own counts and a tolerance other than the default, the thresholds
// and the cadence bounds at their edges.
TEST(KeyframeTrustRules, StatisticsVerdictAndCadenceBounds)
{
    const auto summary = [](const Gaps& gaps, std::int64_t tolerance) {
        const GapStatistics s = summariseGaps(gaps, tolerance);
        std::ostringstream out;
        out << s.gapCount << ' ' << s.maxGap << ' ' << s.mode << ' ' << s.nearCount << ' '
            << s.share << ' ' << s.distinct << ' ' << s.uniqueRatio << ' ' << s.entropy;
        return out.str();
    };
    EXPECT_EQ(summary({}, 1), "0 0 0 0 0 0 0 0");
    EXPECT_EQ(summary({12, 13, 12, 13, 12}, 0), "5 13 12 3 0.6 2 0.4 0.970951");

    const auto trusted = [](std::int64_t mode, double share, double entropy, double ratio) {
        return irregularKeyframes(
            {.mode = mode, .share = share, .uniqueRatio = ratio, .entropy = entropy}, 125, {});
    };
    EXPECT_FALSE(trusted(12, 0.85, 1.0, 1.0));  // regular at exactly regularShare
    EXPECT_TRUE(trusted(12, 0.84, 0.6, 0.0));   // entropy at its threshold
    EXPECT_TRUE(trusted(12, 0.84, 0.59, 0.4));  // unique ratio at its threshold
    EXPECT_FALSE(trusted(125, 1.0, 1.0, 1.0));  // at the maximum cadence
    EXPECT_TRUE(trusted(126, 1.0, 0.6, 0.0));   // beyond it: judged by entropy
    EXPECT_TRUE(trusted(1, 1.0, 0.6, 0.0));     // a mode of one is never a cadence

    // Five seconds of frames within 12...300. The float nearest 2.6 gives 12.99..., truncated.
    const double rates[] = {0.0, -5.0, std::nan(""), 1.0, 2.6F, 3.0, 25.0, 29.97F, 60.0, HUGE_VAL};
    Gaps cadences;
    std::ranges::transform(rates, std::back_inserter(cadences), maxCadenceForFrameRate);
    EXPECT_EQ(cadences, (Gaps{150, 150, 150, 12, 12, 15, 125, 149, 300, 300}));
}

TEST(SyncSampleCollection, ListsDecodeOrderIndicesWithPresentationTimes)
{
    // Presented sync samples 0, 12 and 24 are decoded 1st, 12th and 24th.
    EXPECT_EQ(
        collect(reorderedTrack(27, 12)),
        (Lines{"{ 0@0, 11@0.48, 23@0.96 }",
               "collectSyncSamplesFast: found 3 syncs. first=(idx:0 t:0.0) last=(idx:23 t:0.96)"}));
    // No time limit: a 400 s track is walked to its end.
    EXPECT_EQ(collect(gapTrack({5000}, "avc1", 25.0F, 4999)),
              (Lines{"{ 4999@199.96, 9999@399.96 }",
                     "collectSyncSamplesFast: found 2 syncs. first=(idx:4999 t:199.96) "
                     "last=(idx:9999 t:399.96)"}));

    SyntheticTrack noSyncs = gapTrack({});
    noSyncs.samples.front().isSync = false;
    EXPECT_EQ(collect(noSyncs), (Lines{"{}", "collectSyncSamplesFast: found 0 syncs."}));
}

// Both walks see a stop request before the next sample: a track without a sample table is
// demuxed to its end otherwise, and a Cancel must not wait for that.
TEST(KeyframeWalks, StopBeforeTheNextSample)
{
    for (const bool isTrustWalk : {true, false}) {
        SCOPED_TRACE(isTrustWalk ? "keyframesTrustable" : "collectSyncSamplesFast");
        std::stop_source stop;
        std::int64_t furthest = 0;
        SyntheticTrack track = media_testing::makeVideoTrack(
            25,
            100000,
            [](std::int64_t) { return media_testing::flatPicture(0); },
            [](std::int64_t i) { return i % 7 == 0; });
        track.onCursorStep = [&](std::int64_t index) {
            furthest = std::max(furthest, index);
            if (index == 40) {
                stop.request_stop();
            }
        };
        const media_testing::SyntheticAsset asset(MediaTime::make(100000, 25), {track});
        const media::Track& video = *asset.tracks()->front();
        Lines lines;
        const core::Log log([&lines](std::string_view line) { lines.emplace_back(line); });
        const auto errorOf = [](const auto& outcome) {
            return outcome ? std::optional<core::Error>() : outcome.error();
        };
        const std::optional<core::Error> error =
            isTrustWalk ? errorOf(keyframesTrustable(asset, video, {}, log, stop.get_token()))
                        : errorOf(collectSyncSamplesFast(video, log, stop.get_token()));
        ASSERT_TRUE(error.has_value());
        EXPECT_TRUE(scan_error::isCancellation(*error)) << error->description;
        EXPECT_EQ(furthest, 40);
        EXPECT_TRUE(lines.empty());
    }
}

}  // namespace
}  // namespace kestrin::scan
