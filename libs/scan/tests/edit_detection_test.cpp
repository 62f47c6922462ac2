#include <kestrin/media_testing/synthetic_asset.hpp>
#include <kestrin/scan/edit_detection.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <limits>
#include <mutex>
#include <tuple>
#include <vector>

namespace kestrin::scan {
namespace {

using core::EditMarker;
using core::Error;
using core::Expected;
using core::MediaTime;
using media_testing::SyntheticAsset;
using media_testing::SyntheticTrack;
using Markers = std::vector<EditMarker>;
using Outcome = Expected<std::optional<EditMarker>>;

const Error kFault{"FFmpeg", -5, "Input/output error"};

// Equal values, or equal errors.
template <typename T>
bool sameOutcome(const Expected<T>& actual, const Expected<T>& expected)
{
    return actual.hasValue() == expected.hasValue()
           && (actual ? *actual == *expected : actual.error() == expected.error());
}

// A track at num / den frames per second of `count` frames, cut into shots at `cuts`, each shot
// flat at a luma of its own: every score within a shot is 0, so the cuts stand out.
SyntheticTrack shotsTrack(std::int64_t count,
                          const std::vector<std::int64_t>& cuts,
                          std::int32_t num = 25,
                          std::int32_t den = 1)
{
    static constexpr std::uint8_t kShotLuma[] = {40, 200, 90, 160, 20, 230};
    SyntheticTrack track;
    track.nominalFrameRate = static_cast<float>(num) / static_cast<float>(den);
    track.minFrameDuration = MediaTime::make(den, num);
    for (std::int64_t i = 0; i < count; ++i) {
        const auto shot =
            std::count_if(cuts.begin(), cuts.end(), [i](auto cut) { return cut <= i; });
        track.samples.push_back(
            {MediaTime::make(i * den, num), true, media_testing::flatPicture(kShotLuma[shot % 6])});
    }
    return track;
}

// An asset of `track` alone, by default as long as its frames.
std::shared_ptr<SyntheticAsset> assetOf(SyntheticTrack track,
                                        Expected<MediaTime> duration = MediaTime::invalid())
{
    if (duration && *duration == MediaTime::invalid()) {
        const MediaTime frame = *track.minFrameDuration;
        duration = MediaTime::make(static_cast<std::int64_t>(track.samples.size()) * frame.value,
                                   frame.timescale);
    }
    return std::make_shared<SyntheticAsset>(duration,
                                            std::vector<SyntheticTrack>{std::move(track)});
}

std::vector<std::int64_t> framesOf(const Markers& markers)
{
    std::vector<std::int64_t> frames(markers.size());
    std::ranges::transform(markers, frames.begin(), &EditMarker::frameIndex);
    return frames;
}

struct Detection
{
    Expected<Markers> result = Markers{};
    std::vector<double> reports;
};

Detection detect(const std::shared_ptr<SyntheticAsset>& asset,
                 const DetectionOptions& options = {},
                 std::stop_token stopToken = {})
{
    media_testing::SyntheticAssetOpener opener;
    opener.add("clip.mov", asset);
    Detection run;
    const auto report = [&run](double p) {
        run.reports.push_back(p);
    };
    run.result = detectEditsByDecoding(opener, "clip.mov", report, std::move(stopToken), options);
    return run;
}

TEST(DetectStatistics, MedianRobustSigmaStrideAndWidth)
{
    EXPECT_EQ(median(std::vector<float>{}), 0.0F);
    EXPECT_EQ(median(std::vector<float>{3, 1, 2}), 2.0F);
    EXPECT_EQ(median(std::vector<float>{4, 1, 3, 2}), 2.5F);
    // Deviations from 3: 2 1 0 1 97, median 1; the outlier does not move it.
    EXPECT_FLOAT_EQ(robustSigma(std::vector<float>{1, 2, 3, 4, 100}, 3.0F), 1.4826F);

    const float nan = std::numeric_limits<float>::quiet_NaN();
    const std::pair<float, int> strides[] = {
        {nan, 4}, {0.5F, 3}, {26.0F, 4}, {40.0F, 6}, {70.0F, 8}};
    for (const auto& [rate, stride] : strides) {
        EXPECT_EQ(sampleStrideForRate(rate), stride) << rate;
    }
    const std::pair<unsigned, int> widths[] = {{0, 2}, {3, 2}, {4, 3}};
    for (const auto& [processors, width] : widths) {
        EXPECT_EQ(refineWidthFor(processors), width) << processors;
    }
}

TEST(SuppressNearbyCandidates, KeepsTheStrongerOfCloseCandidates)
{
    using Candidates = std::vector<Candidate>;
    const std::pair<Candidates, Candidates> rows[] = {
        {{{100, 1.0F}, {120, 2.0F}}, {{120, 2.0F}}},               // 20 apart
        {{{121, 2.0F}, {100, 1.0F}}, {{100, 1.0F}, {121, 2.0F}}},  // 21 apart
        {{{120, 1.0F}, {100, 1.0F}}, {{120, 1.0F}}},               // equal: the first met
        {{{100, 2.0F}, {115, 1.0F}, {130, 3.0F}}, {{100, 2.0F}, {130, 3.0F}}},
    };
    for (const auto& [candidates, kept] : rows) {
        EXPECT_EQ(suppressNearbyCandidates(candidates, 10), kept) << candidates[0].frameIndex;
    }
}

TEST(MergeNearbyMarkers, LaterMarkerReplacesOneWithinDistance)
{
    const auto markersAt = [](const std::vector<std::int64_t>& frames) {
        Markers markers;
        for (const std::int64_t frame : frames) {
            markers.push_back({frame, MediaTime::make(frame, 25), std::nullopt});
        }
        return markers;
    };
    const std::pair<std::vector<std::int64_t>, std::vector<std::int64_t>> rows[] = {
        {{103, 100}, {103}},
        {{100, 104}, {100, 104}},
        {{106, 100, 103}, {106}},
        {{100, 110, 112}, {100, 112}},
        {{}, {}}};
    for (const auto& [frames, merged] : rows) {
        EXPECT_EQ(mergeNearbyMarkers(markersAt(frames), 3), markersAt(merged)) << frames.size();
    }
}

TEST(FrameRateRational, MinFrameDurationFirstThenNamedRates)
{
    const Expected<MediaTime> unusable = MediaTime::invalid();
    const std::tuple<Expected<MediaTime>, Expected<float>, Expected<FrameRateRational>> rows[] = {
        {MediaTime::make(1001, 30000), 25.0F, FrameRateRational{30000, 1001}},
        {kFault, 25.0F, FrameRateRational{25, 1}},
        {MediaTime::make(0, 600), 23.975F, FrameRateRational{24000, 1001}},
        {unusable, 23.974F, FrameRateRational{23974, 1000}},
        {unusable, 24.001F, FrameRateRational{24001, 1000}},
        {unusable, 29.971F, FrameRateRational{30000, 1001}},
        {unusable, 59.94F, FrameRateRational{60000, 1001}},
        {unusable, 60.0F, FrameRateRational{60, 1}},
        {unusable, std::numeric_limits<float>::quiet_NaN(), FrameRateRational{0, 1000}},
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

TEST(RefineAround, FindsTheCutWithinTwelveFramesOrNoMarkerOrAnError)
{
    // Frames, cut, candidate, rate.
    const std::tuple<std::int64_t, std::int64_t, std::int64_t, std::int32_t, std::int32_t> rows[] =
        {
            {100, 50, 50, 25, 1},
            {100, 50, 39, 25, 1},
            {100, 50, 61, 25, 1},
            {30, 1, 0, 25, 1},     // the range starts at 0
            {100, 98, 99, 25, 1},  // the range ends at the duration
            {300, 161, 168, 30000, 1001},
        };
    for (const auto& [frames, cut, candidate, num, den] : rows) {
        SCOPED_TRACE(candidate);
        const auto asset = assetOf(shotsTrack(frames, {cut}, num, den));
        const auto marker = refineAround(candidate, *asset, *(*asset->tracks())[0], {});
        EXPECT_TRUE(sameOutcome(
            marker, Outcome(EditMarker{cut, MediaTime::make(cut * den, num), std::nullopt})));
        // 25 frames, and one more where the 1/600 s bounds do not fall on the frame grid.
        EXPECT_LE(asset->statistics().framesDelivered, 26);
    }

    const std::optional<EditMarker> none;
    const std::tuple<const char*, std::function<void(SyntheticTrack&)>, Outcome> failures[] = {
        {"one frame", [](SyntheticTrack& t) { t.samples.resize(1); }, none},
        {"no usable rate",
         [](SyntheticTrack& t) {
             t.minFrameDuration = MediaTime::invalid();
             t.nominalFrameRate = 0.0F;
         },
         none},
        {"start refused",
         [](SyntheticTrack& t) {
             t.faults.refuseStart = true;
             t.faults.startError = kFault;
         },
         kFault},
        {"start refused silently",
         [](SyntheticTrack& t) { t.faults.refuseStart = true; },
         scan_error::refineStartFailed()},
        {"stopped", [](SyntheticTrack&) {}, scan_error::cancelled()},
    };
    for (const auto& [name, change, outcome] : failures) {
        SyntheticTrack track = shotsTrack(40, {20});
        change(track);
        const auto asset = assetOf(track, MediaTime::make(40, 25));
        std::stop_source stop;
        if (std::string_view(name) == "stopped") {
            stop.request_stop();
        }
        EXPECT_TRUE(sameOutcome(refineAround(20, *asset, *(*asset->tracks())[0], stop.get_token()),
                                outcome))
            << name;
    }
}

TEST(DetectEditsByDecoding, FindsEveryCutNeedsEightScoresAndFallsBackToTheHighest)
{
    const std::vector<std::int64_t> cuts = {31, 77, 118, 160};
    const auto asset = assetOf(shotsTrack(200, cuts));
    const Detection detection = detect(asset);
    ASSERT_TRUE(detection.result) << detection.result.error().description;
    EXPECT_EQ(framesOf(*detection.result), cuts);
    EXPECT_EQ(detection.result->front().time, MediaTime::make(31, 25));

    // The pass up to 0.3, then one step per refined candidate; never decreasing.
    const auto& reports = detection.reports;
    ASSERT_GE(reports.size(), 5U);
    EXPECT_TRUE(std::is_sorted(reports.begin(), reports.end()));
    EXPECT_LE(reports[reports.size() - 5], kSignatureWeight);
    const double refined[] = {0.475, 0.65, 0.825, 1.0};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_NEAR(reports[reports.size() - 4 + i], refined[i], 1e-12);
    }
    // The track once, then at most 26 frames around each candidate.
    EXPECT_LE(asset->statistics().framesDelivered, 200 + 4 * 26);

    // At 25 fps every third frame is scored: 24 frames give 7 scores, 27 give 8.
    const Detection seven = detect(assetOf(shotsTrack(24, {13})));
    EXPECT_TRUE(sameOutcome(seven.result, Expected<Markers>(Markers{})));
    EXPECT_EQ(seven.reports, std::vector<double>{0.0});  // the pass's one report, nothing after
    const Detection eight = detect(assetOf(shotsTrack(27, {13})));
    ASSERT_TRUE(eight.result);
    EXPECT_EQ(framesOf(*eight.result), std::vector<std::int64_t>{13});

    // 120 identical frames: every score is 0, so none stands out; 18 candidates per minute, at
    // least 18, are taken in frame order (equal scores) and thinned to one per 21 frames.
    const std::pair<MediaTime, std::vector<std::int64_t>> rows[] = {
        {MediaTime::make(120, 25), {3, 24, 45}},
        {MediaTime::make(120, 1), {3, 24, 45, 66, 87, 108}},
    };
    for (const auto& [duration, expected] : rows) {
        std::mutex mutex;
        std::vector<std::int64_t> picked;
        DetectionOptions options;
        options.refine = [&](std::int64_t frame, const auto&, const auto&, std::stop_token) {
            const std::lock_guard lock(mutex);
            picked.push_back(frame);
            return Outcome(std::nullopt);
        };
        const Detection fallback = detect(assetOf(shotsTrack(120, {}), duration), options);
        EXPECT_TRUE(sameOutcome(fallback.result, Expected<Markers>(Markers{})));
        std::ranges::sort(picked);
        EXPECT_EQ(picked, expected);
        EXPECT_NEAR(fallback.reports.back(), 1.0, 1e-12);
    }
}

TEST(DetectEditsByDecoding, PassesErrorsOnAndFindsNothingWithoutVideo)
{
    SyntheticTrack audio = shotsTrack(100, {40});
    audio.mediaType = media::MediaType::audio;
    SyntheticTrack noRate = shotsTrack(100, {40});
    noRate.nominalFrameRate = kFault;
    const auto noTracks = assetOf(shotsTrack(100, {40}));
    noTracks->failTrackLoad(kFault);
    DetectionOptions failingRefinement;
    failingRefinement.refine = [](std::int64_t, const auto&, const auto&, std::stop_token) {
        return Outcome(kFault);
    };
    std::stop_source stopped;
    stopped.request_stop();

    const std::tuple<const char*, Detection, Expected<Markers>> rows[] = {
        {"no video", detect(assetOf(audio)), Markers{}},
        {"duration", detect(assetOf(shotsTrack(100, {40}), kFault)), kFault},
        {"tracks", detect(noTracks), kFault},
        {"nominal rate", detect(assetOf(noRate)), kFault},
        {"refinement", detect(assetOf(shotsTrack(100, {40})), failingRefinement), kFault},
        {"stopped",
         detect(assetOf(shotsTrack(100, {40})), {}, stopped.get_token()),
         scan_error::cancelled()},
    };
    for (const auto& [name, detection, outcome] : rows) {
        EXPECT_TRUE(sameOutcome(detection.result, outcome)) << name;
    }
    const media_testing::SyntheticAssetOpener none;
    EXPECT_EQ(detectEditsByDecoding(none, "missing.mov", {}, {}).error(),
              none.openAsset("missing.mov", {}).error());
}

}  // namespace
}  // namespace kestrin::scan
