#include <kestrin/media_testing/synthetic_asset.hpp>
#include <kestrin/scan/keyframe_trust.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrin::scan {
namespace {

using core::MediaTime;
using media::FormatDescription;
using media::fourCC;
using media_testing::SyntheticAsset;
using media_testing::SyntheticSample;
using media_testing::SyntheticTrack;

using Gaps = std::vector<std::int64_t>;
using Descriptions = core::Expected<std::vector<FormatDescription>>;

Descriptions codec(media::FourCC subType)
{
    return std::vector<FormatDescription>{{media::MediaType::video, subType, 0}};
}

// A track whose first sync sample comes `firstSync` samples in, the next ones `gaps` apart,
// followed by a few ordinary samples; 25 samples a second.
SyntheticTrack gapTrack(const Gaps& gaps,
                        Descriptions descriptions = codec(fourCC("avc1")),
                        float nominalFrameRate = 25.0F,
                        std::int64_t firstSync = 0)
{
    std::vector<bool> isSync(static_cast<std::size_t>(firstSync) + 1, false);
    isSync.back() = true;
    for (const std::int64_t gap : gaps) {
        isSync.resize(isSync.size() + static_cast<std::size_t>(gap), false);
        isSync.back() = true;
    }
    isSync.resize(isSync.size() + 3, false);
    SyntheticTrack track = media_testing::makeVideoTrack(
        25,
        static_cast<std::int64_t>(isSync.size()),
        [](std::int64_t) { return media_testing::flatPicture(0); },
        [&isSync](std::int64_t i) { return isSync[static_cast<std::size_t>(i)]; });
    track.formatDescriptions = std::move(descriptions);
    track.nominalFrameRate = nominalFrameRate;
    return track;
}

// B-frame-like decode order: after frame 0, each pair of frames is decoded later frame first
// (presentation 0, 2, 1, 4, 3, ...); every `syncEvery`-th presented frame is a sync sample.
SyntheticTrack reorderedTrack(std::int64_t count, std::int64_t syncEvery)
{
    SyntheticTrack track;
    for (std::int64_t decode = 0; decode < count; ++decode) {
        const std::int64_t shown = decode == 0 ? 0 : (decode % 2 == 1 ? decode + 1 : decode - 1);
        track.samples.push_back(
            SyntheticSample{MediaTime::make(shown, 25), shown % syncEvery == 0, std::nullopt});
    }
    track.formatDescriptions = codec(fourCC("avc1"));
    return track;
}

struct Outcome
{
    core::Expected<bool> trusted;
    std::vector<std::string> lines;
};

Outcome trust(SyntheticTrack track,
              core::Expected<MediaTime> duration = MediaTime::make(3600, 1),
              const KeyframeTrustParameters& parameters = {})
{
    const SyntheticAsset asset(std::move(duration), {std::move(track)});
    std::vector<std::string> lines;
    const core::Log log([&lines](std::string_view line) { lines.emplace_back(line); });
    auto trusted = keyframesTrustable(asset, *asset.tracks()->front(), parameters, log);
    return {std::move(trusted), std::move(lines)};
}

std::string sample(const Gaps& gaps)
{
    std::string text;
    for (const std::int64_t gap : gaps) {
        text += (text.empty() ? "" : ", ") + std::to_string(gap);
    }
    return "gaps sample=[" + text + "]";
}

const std::string kFalse = "keyframes trustable?: false — ";
const std::string kTrue = "keyframes trustable?: true — ";

// Runs the trust decision on `track` and checks its verdict and its only log line.
void expectDecision(SyntheticTrack track, bool trusted, const std::string& line)
{
    const Outcome outcome = trust(std::move(track));
    ASSERT_TRUE(outcome.trusted.hasValue()) << line;
    EXPECT_EQ(*outcome.trusted, trusted) << line;
    EXPECT_EQ(outcome.lines, std::vector<std::string>{line});
}

TEST(KeyframeTrust, EachDecisionLogsItsLine)
{
    const Descriptions prores = codec(fourCC("apcn"));
    const std::string avc25 = "fps=25.0, codec=avc1, ";

    // The gap count is checked before the codec.
    expectDecision(gapTrack(Gaps(7, 1), prores), false, kFalse + "insufficient intervals (gaps=7)");
    expectDecision(gapTrack(Gaps(8, 1), prores),
                   false,
                   kFalse + "codec is intra-only. fps=25.0, codec=apcn, " + sample(Gaps(8, 1)));
    const Gaps ones = {1, 1, 2, 1, 1, 1, 1, 1, 5, 9};
    expectDecision(gapTrack(ones),
                   false,
                   kFalse + "gaps mostly 1. " + avc25 + "mode=1, share=80%, " + sample(ones));
    // Gaps of one below a share of 0.6 go on to the entropy.
    const Gaps fewOnes = {1, 1, 1, 1, 1, 4, 7, 10, 13, 16};
    expectDecision(gapTrack(fewOnes),
                   true,
                   kTrue + avc25 + "mode=1, share=50%, uniqueRatio=0.60, H=0.84, suppress=16, "
                       + sample(fewOnes));
    expectDecision(gapTrack(Gaps(10, 12)),
                   false,
                   kFalse + avc25 + "mode=12, share=100%, uniqueRatio=0.10, H=0.00, suppress=12, "
                       + sample(Gaps(10, 12)));
    // Beyond the maximum cadence of 125 at 25 fps; all equal, so no entropy either.
    expectDecision(gapTrack(Gaps(8, 250)),
                   false,
                   kFalse + avc25 + "mode=250, share=100%, uniqueRatio=0.12, H=0.00, suppress=250, "
                       + sample(Gaps(8, 250)));
    // An unknown rate logs as 0.0 and takes a cadence of up to 150 as regular.
    const Gaps alternating = {140, 141, 140, 141, 140, 141, 140, 141};
    expectDecision(gapTrack(alternating, codec(fourCC("avc1")), -1.0F),
                   false,
                   kFalse + "fps=0.0, codec=avc1, mode=140, share=100%, uniqueRatio=0.25, H=1.00, "
                            "suppress=141, " + sample(alternating));
    // Samples before the first sync sample make no gap.
    const Gaps different = {10, 20, 30, 40, 50, 60, 70, 80};
    expectDecision(gapTrack(different, codec(fourCC("avc1")), 25.0F, 5),
                   true,
                   kTrue + avc25 + "mode=10, share=12%, uniqueRatio=1.00, H=1.00, suppress=80, "
                       + sample(different));
    // The smallest of equally frequent gaps is the mode.
    const Gaps tied = {9, 9, 40, 3, 3, 20, 40, 20};
    expectDecision(gapTrack(tied),
                   true,
                   kTrue + avc25 + "mode=3, share=25%, uniqueRatio=0.50, H=1.00, suppress=40, "
                       + sample(tied));
    // Descriptions that fail to load leave the codec unknown.
    expectDecision(gapTrack(Gaps(10, 12), core::Error{"test", 1, "descriptions"}, 29.97F),
                   false,
                   kFalse + "fps=29.969999313354492, codec=????, mode=12, share=100%, "
                            "uniqueRatio=0.10, H=0.00, suppress=12, " + sample(Gaps(10, 12)));
    // The sample shows the first 50 gaps only.
    Gaps sixty(50, 12);
    sixty.insert(sixty.end(), 10, 13);
    expectDecision(gapTrack(sixty),
                   false,
                   kFalse + avc25 + "mode=12, share=100%, uniqueRatio=0.03, H=0.65, suppress=13, "
                       + sample(Gaps(50, 12)));
}

TEST(KeyframeTrust, GapWalkGoesInPresentationOrderUpToTheHorizon)
{
    // One sync sample a second for 20 s (t = 0 ... 19), then three sync samples without a time,
    // which the cursor presents last. A high minIntervals makes every run report its gap count.
    SyntheticTrack track = gapTrack(Gaps(19, 25));
    track.samples.insert(track.samples.end(), 3, {MediaTime::invalid(), true, std::nullopt});
    KeyframeTrustParameters counting;
    counting.minIntervals = 1000;
    KeyframeTrustParameters shortScan = counting;
    shortScan.maxScanSeconds = 5.0;
    struct Row
    {
        core::Expected<MediaTime> duration;
        KeyframeTrustParameters parameters;
        int gaps;
    };
    const Row rows[] = {
        {MediaTime::make(7, 1), counting, 7},  // a sample at the horizon still counts
        {MediaTime::make(75, 10), counting, 7},
        {MediaTime::make(3600, 1), shortScan, 5},
        {MediaTime::indefinite(), shortScan, 5},  // a duration without a value caps nothing
        {MediaTime::make(3600, 1), counting, 22},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(trust(track, row.duration, row.parameters).lines,
                  std::vector<std::string>{
                      kFalse + "insufficient intervals (gaps=" + std::to_string(row.gaps) + ")"});
    }

    // Times that are not numbers never end the walk, however short the horizon.
    SyntheticTrack timeless = gapTrack(Gaps(11, 1));
    for (SyntheticSample& each : timeless.samples) {
        each.presentationTime = MediaTime::invalid();
    }
    EXPECT_EQ(trust(timeless, MediaTime::make(1, 10), counting).lines,
              std::vector<std::string>{kFalse + "insufficient intervals (gaps=11)"});

    // The walk goes in presentation order: decoded, these sync samples are 11, 12, 12, ... apart.
    expectDecision(reorderedTrack(12 * 8 + 3, 12),
                   false,
                   kFalse + "fps=25.0, codec=avc1, mode=12, share=100%, uniqueRatio=0.12, H=0.00, "
                            "suppress=12, " + sample(Gaps(8, 12)));
}

TEST(KeyframeTrust, RefusesWithoutCursorsAndPassesOnLoadFailures)
{
    const core::Error cursorsError{"test", 1, "cursors"};
    const core::Error durationError{"test", 2, "duration"};
    const core::Error rateError{"test", 3, "rate"};
    SyntheticTrack noCursors = gapTrack(Gaps(10, 3));
    noCursors.canProvideSampleCursors = false;
    SyntheticTrack noSamples = noCursors;
    noSamples.canProvideSampleCursors = true;
    noSamples.samples.clear();
    SyntheticTrack cursorsFail = noSamples;
    cursorsFail.canProvideSampleCursors = cursorsError;
    SyntheticTrack rateFails = gapTrack(Gaps(10, 3));
    rateFails.nominalFrameRate = rateError;

    const std::pair<Outcome, Outcome> cases[] = {
        {trust(noCursors), {false, {kFalse + "track cannot provide sample cursors"}}},
        {trust(noSamples), {false, {kFalse + "failed to make sample cursor"}}},
        {trust(cursorsFail), {cursorsError, {}}},
        {trust(gapTrack(Gaps(10, 3)), durationError), {durationError, {}}},
        {trust(rateFails), {rateError, {}}},
    };
    for (const auto& [actual, expected] : cases) {
        ASSERT_EQ(actual.trusted.hasValue(), expected.trusted.hasValue());
        if (expected.trusted.hasValue()) {
            EXPECT_EQ(*actual.trusted, *expected.trusted);
        } else {
            EXPECT_EQ(actual.trusted.error(), expected.trusted.error());
        }
        EXPECT_EQ(actual.lines, expected.lines);
    }
}

TEST(KeyframeTrustStatistics, SummarisesTheGapHistogram)
{
    struct Row
    {
        Gaps gaps;
        std::int64_t tolerance;
        GapStatistics expected;
    };
    const Row rows[] = {
        {{}, 1, {}},
        {{12, 12, 7}, 1, {3, 12, 12, 2, 2.0 / 3.0, 2, 2.0 / 3.0, 0.9182958340544896}},
        {{12, 13, 12, 13, 12}, 0, {5, 13, 12, 3, 0.6, 2, 0.4, 0.9709505944546686}},
        {{13, 12, 13, 12}, 1, {4, 13, 12, 4, 1.0, 2, 0.5, 1.0}},
        {{40, 9, 3, 40, 9, 3}, 1, {6, 40, 3, 2, 1.0 / 3.0, 3, 0.5, 1.0}},
        {{250, 250, 250}, 1, {3, 250, 250, 3, 1.0, 1, 1.0 / 3.0, 0.0}}};
    for (const Row& row : rows) {
        SCOPED_TRACE(::testing::PrintToString(row.gaps));
        const GapStatistics actual = summariseGaps(row.gaps, row.tolerance);
        EXPECT_EQ(actual.gapCount, row.expected.gapCount);
        EXPECT_EQ(actual.maxGap, row.expected.maxGap);
        EXPECT_EQ(actual.mode, row.expected.mode);
        EXPECT_EQ(actual.nearCount, row.expected.nearCount);
        EXPECT_DOUBLE_EQ(actual.share, row.expected.share);
        EXPECT_EQ(actual.distinct, row.expected.distinct);
        EXPECT_DOUBLE_EQ(actual.uniqueRatio, row.expected.uniqueRatio);
        EXPECT_NEAR(actual.entropy, row.expected.entropy, 1e-12);
    }
}

TEST(KeyframeTrustVerdict, RegularCadenceFirstThenEntropyThenUniqueRatio)
{
    struct Row
    {
        std::int64_t mode;
        double share;
        double entropy;
        double uniqueRatio;
        bool trusted;
    };
    const Row rows[] = {
        {12, 0.85, 1.0, 1.0, false},  // regular at exactly regularShare
        {12, 0.84, 0.6, 0.0, true},   // entropy at its threshold
        {12, 0.84, 0.59, 0.4, true},  // low entropy, unique ratio at its threshold
        {12, 0.84, 0.59, 0.39, false},
        {125, 1.0, 1.0, 1.0, false},  // at the maximum cadence
        {126, 1.0, 0.6, 0.0, true},   // beyond it: judged by entropy
        {1, 1.0, 0.6, 0.0, true},     // a mode of one is never a cadence
    };
    for (const Row& row : rows) {
        const GapStatistics statistics{.mode = row.mode,
                                       .share = row.share,
                                       .uniqueRatio = row.uniqueRatio,
                                       .entropy = row.entropy};
        EXPECT_EQ(irregularKeyframes(statistics, 125, {}), row.trusted)
            << "mode " << row.mode << " share " << row.share << " H " << row.entropy << " ratio "
            << row.uniqueRatio;
    }
}

TEST(KeyframeTrustCadence, FiveSecondsOfFramesWithinBounds)
{
    // The float nearest 2.6 gives 12.99..., which truncates to 12.
    const std::pair<double, std::int64_t> rows[] = {{0.0, 150},
                                                    {-5.0, 150},
                                                    {std::nan(""), 150},
                                                    {1.0, 12},
                                                    {static_cast<double>(2.6F), 12},
                                                    {3.0, 15},
                                                    {25.0, 125},
                                                    {static_cast<double>(29.97F), 149},
                                                    {60.0, 300},
                                                    {HUGE_VAL, 300}};
    for (const auto& [fps, cadence] : rows) {
        EXPECT_EQ(maxCadenceForFrameRate(fps), cadence) << "fps " << fps;
    }
}

struct Collected
{
    core::Expected<std::vector<core::SyncSample>> syncs;
    std::vector<std::string> lines;
};

Collected collect(SyntheticTrack track)
{
    const SyntheticAsset asset(MediaTime::make(3600, 1), {std::move(track)});
    std::vector<std::string> lines;
    const core::Log log([&lines](std::string_view line) { lines.emplace_back(line); });
    auto syncs = collectSyncSamplesFast(*asset.tracks()->front(), log);
    return {std::move(syncs), std::move(lines)};
}

TEST(SyncSampleCollection, ListsDecodeOrderIndicesWithPresentationTimes)
{
    // Presented sync samples 0, 12 and 24 are decoded 1st, 12th and 24th.
    const Collected collected = collect(reorderedTrack(27, 12));
    ASSERT_TRUE(collected.syncs.hasValue());
    const std::vector<core::SyncSample> expected = {
        {0, MediaTime::make(0, 25), std::nullopt},
        {11, MediaTime::make(12, 25), std::nullopt},
        {23, MediaTime::make(24, 25), std::nullopt},
    };
    EXPECT_EQ(*collected.syncs, expected);
    EXPECT_EQ(collected.lines,
              std::vector<std::string>{"collectSyncSamplesFast: found 3 syncs. "
                                       "first=(idx:0 t:0.0) last=(idx:23 t:0.96)"});

    // No time limit: a 400 s track is walked to its end.
    EXPECT_EQ(collect(media_testing::makeVideoTrack(
                          25,
                          10'000,
                          [](std::int64_t) { return media_testing::flatPicture(0); },
                          [](std::int64_t i) { return i % 5000 == 4999; }))
                  .lines,
              std::vector<std::string>{"collectSyncSamplesFast: found 2 syncs. "
                                       "first=(idx:4999 t:199.96) last=(idx:9999 t:399.96)"});
}

TEST(SyncSampleCollection, EmptyCasesAndFailures)
{
    SyntheticTrack noCursors = gapTrack(Gaps(3, 2));
    noCursors.canProvideSampleCursors = false;
    SyntheticTrack noSyncs = gapTrack({});
    noSyncs.samples.front().isSync = false;
    const core::Error error{"test", 7, "cursors"};
    SyntheticTrack failing = gapTrack(Gaps(3, 2));
    failing.canProvideSampleCursors = error;

    const std::vector<std::string> silent;
    const std::pair<Collected, std::vector<std::string>> cases[] = {
        {collect(noCursors), silent},
        {collect(SyntheticTrack{}), silent},
        {collect(noSyncs), {"collectSyncSamplesFast: found 0 syncs."}},
    };
    for (const auto& [collected, lines] : cases) {
        ASSERT_TRUE(collected.syncs.hasValue());
        EXPECT_TRUE(collected.syncs->empty());
        EXPECT_EQ(collected.lines, lines);
    }

    const Collected failed = collect(failing);
    ASSERT_FALSE(failed.syncs.hasValue());
    EXPECT_EQ(failed.syncs.error(), error);
    EXPECT_TRUE(failed.lines.empty());
}

}  // namespace
}  // namespace kestrin::scan
