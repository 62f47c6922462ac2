#include <kestrin/media_testing/synthetic_asset.hpp>
#include <kestrin/scan/edit_detection.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

namespace kestrin::scan {
namespace {

using core::EditMarker;
using core::Expected;
using core::MediaTime;
using media_testing::SyntheticTrack;
using Asset = std::shared_ptr<media_testing::SyntheticAsset>;
using Frames = std::vector<std::int64_t>;
using Markers = std::vector<EditMarker>;
using Outcome = Expected<std::optional<EditMarker>>;

const core::Error kFault{"FFmpeg", -5, "Input/output error"};

// An outcome as a failure message shows it.
template <typename T>
std::string describe(const Expected<T>& outcome)
{
    return outcome
               ? "the value " + testing::PrintToString(*outcome)
               : "the error " + outcome.error().domain + " " + std::to_string(outcome.error().code)
                     + " \"" + outcome.error().description + "\"";
}

// Equal values, or equal errors; the message shows both when they differ.
template <typename T>
testing::AssertionResult sameOutcome(const Expected<T>& actual, const Expected<T>& expected)
{
    if (actual.hasValue() == expected.hasValue()
        && (actual ? *actual == *expected : actual.error() == expected.error())) {
        return testing::AssertionSuccess();
    }
    return testing::AssertionFailure()
           << "got " << describe(actual) << ", expected " << describe(expected);
}

// Markers at `frames` of a 25 fps track.
Expected<Markers> markersAt(const Frames& frames)
{
    Markers markers;
    for (const std::int64_t frame : frames) {
        markers.push_back({frame, MediaTime::make(frame, 25), std::nullopt});
    }
    return markers;
}

// A track at num / den frames per second of `count` frames, cut into shots at `cuts`, each shot
// flat, dark and bright in turn: every score within a shot is 0, so the cuts stand out, and every
// cut changes the picture by as much as any other.
SyntheticTrack shotsTrack(std::int64_t count, const Frames& cuts, int num = 25, int den = 1)
{
    SyntheticTrack track;
    track.nominalFrameRate = static_cast<float>(num) / static_cast<float>(den);
    track.minFrameDuration = MediaTime::make(den, num);
    for (std::int64_t i = 0; i < count; ++i) {
        const auto shot = std::ranges::count_if(cuts, [i](auto cut) { return cut <= i; });
        track.samples.push_back(
            {MediaTime::make(i * den, num), true, media_testing::flatPicture(shot % 2 ? 200 : 40)});
    }
    return track;
}

// An asset of `track` alone, by default as long as its frames.
Asset assetOf(SyntheticTrack track, Expected<MediaTime> duration = MediaTime::invalid())
{
    if (duration && *duration == MediaTime::invalid()) {
        const MediaTime frame = *track.minFrameDuration;
        duration = MediaTime::make(std::ssize(track.samples) * frame.value, frame.timescale);
    }
    return std::make_shared<media_testing::SyntheticAsset>(duration, std::vector{std::move(track)});
}

struct Detection
{
    Expected<Markers> result = Markers{};
    std::vector<double> reports;
    Frames refined;  // the candidates refined, in frame order

    void operator()(double progress) { reports.push_back(progress); }  // the progress callback
};

// Detects, refining with refineAround unless every refinement is to give `outcome`.
Detection detect(const Asset& asset, std::optional<Outcome> outcome = {}, std::stop_token stop = {})
{
    Detection run;
    std::mutex mutex;  // refinements run on several threads
    DetectionOptions options;
    options.refine = [&](std::int64_t frame, const auto& a, const auto& t, std::stop_token s) {
        const std::lock_guard lock(mutex);
        run.refined.push_back(frame);
        return outcome ? *outcome : refineAround(frame, a, t, std::move(s));
    };
    const media::TrackPointer track = asset->tracks()->front();
    run.result = detectEditsByDecoding(*asset, *track, std::ref(run), std::move(stop), options);
    std::ranges::sort(run.refined);
    return run;
}

TEST(DetectionArithmetic, MedianAndRobustSigmaIgnoreAnOutlier)
{
    EXPECT_EQ(median(std::vector<float>{}), 0.0F);
    EXPECT_EQ(median(std::vector<float>{3, 1, 2}), 2.0F);
    EXPECT_EQ(median(std::vector<float>{4, 1, 3, 2}), 2.5F);
    // Deviations from 3: 2 1 0 1 97, median 1; the outlier does not move it.
    EXPECT_FLOAT_EQ(robustSigma(std::vector<float>{1, 2, 3, 4, 100}, 3.0F), 1.4826F);
}

TEST(DetectionArithmetic, StrideFollowsTheRateAndPoolWidthTheCores)
{
    EXPECT_EQ(sampleStrideForRate(std::numeric_limits<float>::quiet_NaN()), 4);
    EXPECT_EQ(sampleStrideForRate(0.5F), 3);
    EXPECT_EQ(sampleStrideForRate(26.0F), 4);
    EXPECT_EQ(sampleStrideForRate(40.0F), 6);
    EXPECT_EQ(sampleStrideForRate(70.0F), 8);
    EXPECT_EQ(refineWidthFor(0), 2);
    EXPECT_EQ(refineWidthFor(3), 2);
    EXPECT_EQ(refineWidthFor(4), 3);
}

TEST(DetectionArithmetic, NearbyCandidatesKeepTheStrongerAndNearbyMarkersTheLater)
{
    // Of candidates within twice the radius, the stronger stays.
    using Candidates = std::vector<Candidate>;
    const std::pair<Candidates, Candidates> rows[] = {
        {{{100, 1.0F}, {120, 2.0F}}, {{120, 2.0F}}},               // 20 apart
        {{{121, 2.0F}, {100, 1.0F}}, {{100, 1.0F}, {121, 2.0F}}},  // 21 apart
        {{{120, 1.0F}, {100, 1.0F}}, {{120, 1.0F}}},               // equal: the first met
        {{{100, 2.0F}, {115, 1.0F}, {130, 3.0F}}, {{100, 2.0F}, {130, 3.0F}}},
    };
    for (const auto& [candidates, kept] : rows) {
        EXPECT_EQ(suppressNearbyCandidates(candidates, 10), kept)
            << "candidates from frame " << candidates[0].frameIndex;
    }

    // A later marker replaces the last kept one within the distance.
    const std::pair<Frames, Frames> merges[] = {{{103, 100}, {103}},
                                                {{100, 104}, {100, 104}},
                                                {{106, 100, 103}, {106}},
                                                {{100, 110, 112}, {100, 112}},
                                                {{}, {}}};
    for (const auto& [frames, merged] : merges) {
        EXPECT_EQ(mergeNearbyMarkers(*markersAt(frames), 3), *markersAt(merged))
            << "markers at " << testing::PrintToString(frames);
    }
}

TEST(TrackFrameRate, MinFrameDurationFirstThenNamedRates)
{
    const Expected<MediaTime> unusable = MediaTime::invalid();
    const std::tuple<Expected<MediaTime>, Expected<float>, Expected<core::FrameRate>> rows[] = {
        {MediaTime::make(1001, 30000), 25.0F, core::FrameRate{30000, 1001}},
        {kFault, 25.0F, core::FrameRate{25, 1}},
        {MediaTime::make(0, 600), 23.975F, core::FrameRate{24000, 1001}},
        {unusable, 23.974F, core::FrameRate{23974, 1000}},
        {unusable, 24.001F, core::FrameRate{24001, 1000}},
        {unusable, 29.971F, core::FrameRate{30000, 1001}},
        {unusable, 59.94F, core::FrameRate{60000, 1001}},
        {unusable, 60.0F, core::FrameRate{60, 1}},
        {unusable, std::numeric_limits<float>::quiet_NaN(), core::FrameRate{0, 1000}},
        {unusable, kFault, kFault},
    };
    for (const auto& [minFrameDuration, nominal, rate] : rows) {
        SyntheticTrack track;
        track.minFrameDuration = minFrameDuration;
        track.nominalFrameRate = nominal;
        const auto asset = assetOf(track, MediaTime::zero());
        EXPECT_TRUE(sameOutcome(frameRateRational(*(*asset->tracks())[0]), rate))
            << (nominal ? *nominal : -1.0F);
    }
    EXPECT_EQ(frameIndexAt(MediaTime::make(45045, 30000), {30000, 1001}), 45);
    EXPECT_EQ(frameIndexAt(MediaTime::make(24 * 7 - 1, 600), {25, 1}), 6);
}

TEST(RefineAround, FindsTheFirstOfTheLargestChangesWithinTwelveFramesOrNoMarkerOrAnError)
{
    // Frames, cut (another as large follows 5 frames later), candidate, rate.
    const std::tuple<int, int, int, int, int> rows[] = {
        {100, 50, 50, 25, 1},
        {100, 50, 39, 25, 1},
        {100, 50, 61, 25, 1},
        {30, 1, 0, 25, 1},     // the range starts at 0
        {100, 98, 99, 25, 1},  // the range ends at the duration
        {300, 161, 168, 30000, 1001},
    };
    for (const auto& [frames, cut, candidate, num, den] : rows) {
        const auto asset = assetOf(shotsTrack(frames, {cut, cut + 5}, num, den));
        const auto marker = refineAround(candidate, *asset, *(*asset->tracks())[0], {});
        const EditMarker expected{cut, MediaTime::make(std::int64_t{cut} * den, num), std::nullopt};
        EXPECT_TRUE(sameOutcome(marker, Outcome(expected))) << candidate;
        // 25 frames, and one more where the 1/600 s bounds do not fall on the frame grid.
        EXPECT_LE(asset->statistics().framesDelivered, 26);
    }

    std::stop_source stop;
    stop.request_stop();
    // Frames, frame rate (0: none usable), start refused (with this error), stop.
    const std::tuple<int, int, bool, std::optional<core::Error>, std::stop_token, Outcome>
        failures[] = {
            {1, 25, false, std::nullopt, {}, Outcome(std::nullopt)},
            {40, 0, false, std::nullopt, {}, Outcome(std::nullopt)},
            {40, 25, true, kFault, {}, kFault},
            {40, 25, true, std::nullopt, {}, scan_error::refineStartFailed()},
            {40, 25, false, std::nullopt, stop.get_token(), scan_error::cancelled()},
        };
    for (const auto& [frames, num, refused, startError, token, outcome] : failures) {
        SyntheticTrack track = shotsTrack(frames, {20}, num);
        track.faults.refuseStart = refused;
        track.faults.startError = startError;
        const auto asset = assetOf(track, MediaTime::make(40, 25));
        EXPECT_TRUE(sameOutcome(refineAround(20, *asset, *(*asset->tracks())[0], token), outcome))
            << frames << num << refused << token.stop_requested();
    }
}

TEST(DetectEditsByDecoding, FindsEveryCutNeedsEightScoresFallsBackAndPassesErrorsOn)
{
    const Frames cuts = {31, 77, 118, 160};
    const auto asset = assetOf(shotsTrack(200, cuts));
    const Detection detection = detect(asset);
    EXPECT_TRUE(sameOutcome(detection.result, markersAt(cuts)));
    // The pass up to 0.3, then one step per refined candidate; never decreasing.
    ASSERT_GE(detection.reports.size(), 5U);
    EXPECT_TRUE(std::ranges::is_sorted(detection.reports));
    EXPECT_LE(detection.reports.end()[-5], kSignatureWeight);
    for (int i = 1; i <= 4; ++i) {
        EXPECT_NEAR(detection.reports.end()[i - 5], 0.3 + 0.175 * i, 1e-12) << i;
    }
    // The track once, then at most 26 frames around each candidate.
    EXPECT_LE(asset->statistics().framesDelivered, 200 + 4 * 26);

    const SyntheticTrack flat = shotsTrack(120, {});
    const SyntheticTrack track = shotsTrack(100, {40});
    SyntheticTrack noRate = track;
    noRate.nominalFrameRate = kFault;
    std::stop_source stop;
    stop.request_stop();
    const Outcome none(std::nullopt);
    // A detection, its outcome, the candidates refined.
    const std::tuple<Detection, Expected<Markers>, Frames> rows[] = {
        // At 25 fps every third frame is scored: 24 frames give 7 scores, 27 give 8.
        {detect(assetOf(shotsTrack(24, {13}))), Markers{}, {}},
        {detect(assetOf(shotsTrack(27, {13}))), markersAt({13}), {15}},
        // 120 identical frames: every score is 0, so none stands out; 18 candidates per minute,
        // at least 18, are taken in frame order (equal scores) and thinned to one per 21 frames.
        {detect(assetOf(flat, MediaTime::make(120, 25)), none), Markers{}, {3, 24, 45}},
        {detect(assetOf(flat, MediaTime::make(120, 1)), none), Markers{}, {3, 24, 45, 66, 87, 108}},
        {detect(assetOf(track, kFault)), kFault, {}},
        {detect(assetOf(noRate)), kFault, {}},
        {detect(assetOf(track), kFault), kFault, {42}},
        {detect(assetOf(track), none, stop.get_token()), scan_error::cancelled(), {}},
    };
    for (int row = 0; const auto& [run, outcome, refined] : rows) {
        EXPECT_TRUE(sameOutcome(run.result, outcome)) << row;
        EXPECT_EQ(run.refined, refined) << row++;
    }
    // The pass's one report, none after.
    EXPECT_EQ(std::get<0>(rows[0]).reports, std::vector<double>{0.0});
}

}  // namespace
}  // namespace kestrin::scan
