#include <kestrin/media_testing/synthetic_asset.hpp>
#include <kestrin/scan/edit_confirmation.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <string>
#include <tuple>
#include <vector>

namespace kestrin::scan {
namespace {

using core::MediaTime;
using media_testing::SyntheticAsset;
using Ints = std::vector<std::int64_t>;
using Bytes = std::vector<std::uint8_t>;
using Strings = std::vector<std::string>;

// A sync sample or a marker at `frame` of a 25 fps track.
template <typename T = core::SyncSample>
T at(std::int64_t frame)
{
    return {frame, MediaTime::make(frame, 25), std::nullopt};
}

TEST(ConfirmationWindow, ScoresTheChangeAtTheBoundaryAgainstTheOthers)
{
    // Thumbnails of one row of five samples each; a single value stands for five equal samples.
    // Then absAtBoundary, rZ (1.4826 x MAD, or 1e-6 when that is 0) and whether it is kept.
    const std::tuple<std::vector<Bytes>, double, double, bool> rows[] = {
        {{{100}, {117, 117, 118, 118, 118}}, 17.6, 0, true},   // two thumbnails: 11 x 1.6
        {{{100}, {117, 117, 117, 118, 118}}, 17.4, 0, false},  // just under
        // A clear cut. Diffs 1 2 97 5 6: others 1 2 5 6, median 3.5, MAD 2.
        {{{100}, {101}, {103}, {200}, {205}, {211}}, 97, 93.5 / (2 * 1.4826), true},
        {{{100}, {100}, {110}, {110}}, 10, 10 / 1e-6, false},  // under the absolute threshold
        // A weak outlier. Diffs 0 0 17 10 10: median 5, MAD 5.
        {{{100}, {100}, {100}, {117}, {127}, {137}}, 17, 12 / (5 * 1.4826), false},
        {{{100}, {100}, {130}, {160}, {160}}, 30, 30 / 1e-6, false},  // 30 twice: a weak peak
        // A flash. Diffs 40 78 38: the largest beats 1.6 x 40, but the thumbnail after it
        // averages 114 against 100 either side. The one before it averages 100.
        {{{100}, {50, 50, 150, 150, 100}, {150, 150, 70, 70, 130}, {100}}, 78, 39 / 1.4826, false},
        // A cut into the last thumbnail: the flash test needs two thumbnails after the change.
        {{{100}, {100}, {100}, {200}}, 100, 100 / 1e-6, true},
    };
    for (const auto& [samples, absAtBoundary, rZ, keep] : rows) {
        SCOPED_TRACE(testing::Message()
                     << "the row whose change at the boundary is " << absAtBoundary);
        std::vector<LumaPlane> planes;
        for (const Bytes& row : samples) {
            std::ranges::copy(row.size() == 1 ? Bytes(5, row[0]) : row,
                              planes.emplace_back(5, 1).bytes().begin());
        }
        const auto candidate = scoreWindow(at(7), planes, {});
        ASSERT_TRUE(candidate);
        EXPECT_DOUBLE_EQ(candidate->absAtBoundary, absAtBoundary);
        EXPECT_DOUBLE_EQ(candidate->rZ, rZ);
        EXPECT_EQ(candidate->keep, keep);
    }
    EXPECT_FALSE(scoreWindow(at(7), std::vector<LumaPlane>(1, LumaPlane(5, 1)), {}))
        << "one thumbnail has no change to score";
}

TEST(ConfirmationWindow, SpansAFewFramesEitherSideOfTheCandidate)
{
    // Nominal rate, then the frame duration in 1/600 s.
    const std::pair<core::Expected<float>, std::int64_t> rates[] = {
        {25.0F, 24}, {23.976F, 25}, {29.97F, 20}, {0.0F, 20}, {core::Error{"FFmpeg", -5, ""}, 20}};
    for (const auto& [rate, duration] : rates) {
        EXPECT_EQ(confirmationFrameDuration(rate), MediaTime::make(duration, 600))
            << "at " << (rate ? std::to_string(*rate) : "an unknown rate");
    }
    const MediaTime frame = MediaTime::make(24, 600);
    EXPECT_EQ(
        confirmationWindow(MediaTime::make(2, 1), frame, {}),
        core::MediaTimeRange::fromStartEnd(MediaTime::make(1104, 600), MediaTime::make(1296, 600)));
    EXPECT_EQ(confirmationWindow(MediaTime::make(2, 25), frame, {}),
              core::MediaTimeRange::fromStartEnd(MediaTime::zero(), MediaTime::make(144, 600)))
        << "a window near the start begins at zero";
}

TEST(ConfirmationWindow, MergesNearbyKeptCandidatesIntoTheirBest)
{
    // Candidates by index and absAtBoundary, all kept but the one at 102; then the group bests.
    const auto scored = [](std::int64_t idx, double abs) {
        return ScoredCandidate{idx, MediaTime{}, abs, 0, idx != 102};
    };
    const std::pair<std::vector<ScoredCandidate>, Ints> merges[] = {
        {{scored(100, 20), scored(101, 30), scored(105, 25)}, {101, 105}},
        {{scored(10, 1), scored(12, 2), scored(14, 3)}, {14}},  // the anchor moves with the best
        {{scored(10, 3), scored(12, 2), scored(14, 1)}, {10, 14}},
        {{scored(105, 5), scored(102, 50), scored(100, 5)}, {100, 105}},  // sorted, 102 ignored
    };
    for (const auto& [candidates, expected] : merges) {
        Ints bests;
        for (const ScoredCandidate& best : mergeKeptCandidates(candidates, 2)) {
            bests.push_back(best.idx);
        }
        Ints indices;
        std::ranges::transform(candidates, std::back_inserter(indices), &ScoredCandidate::idx);
        EXPECT_EQ(bests, expected) << "from candidates at " << testing::PrintToString(indices);
    }
}

// Confirms `syncs` on the asset's first track, stopping at the first report when asked to.
struct Confirmed
{
    Confirmed(const SyntheticAsset& asset,
              const std::vector<core::SyncSample>& syncs,
              bool stopAtReport = false)
    {
        const core::Log log([this](std::string_view line) { lines.emplace_back(line); });
        const auto report = [this, stopAtReport](double fraction) {
            reports.push_back(fraction);
            if (stopAtReport) {
                stop.request_stop();
            }
        };
        const ConfirmationParameters small{.thumbWidth = 32, .thumbHeight = 18};
        const media::Track& track = *(*asset.tracks())[0];
        markers = confirmEditsNearSyncs(asset, track, syncs, small, report, log, stop.get_token());
    }

    std::stop_source stop;
    core::Expected<std::vector<core::EditMarker>> markers = core::Error{};
    std::vector<double> reports;
    Strings lines;
};

// A 25 fps track of flat frames whose luma steps up at each of `cuts`.
media_testing::SyntheticTrack shotsTrack(std::int64_t count, const Ints& cuts)
{
    const auto picture = [cuts](std::int64_t frame) {
        const auto shot = std::ranges::count_if(cuts, [&](auto cut) { return frame >= cut; });
        return media_testing::flatPicture(static_cast<std::uint8_t>(40 + 50 * shot));
    };
    return media_testing::makeVideoTrack(25, count, picture, [](std::int64_t) { return true; });
}

TEST(ConfirmEditsNearSyncs, MarksReportsAndLogsOrEndsOnADecoderErrorOrAStop)
{
    // Every tenth frame, and frame 101 whose window also holds the cut at 100: the two tie and
    // the earlier stays.
    std::vector<core::SyncSample> syncs = {at(101)};
    for (std::int64_t frame = 0; frame < 400; frame += 10) {
        syncs.push_back(at(frame));
    }
    const SyntheticAsset asset(MediaTime::make(400, 25), {shotsTrack(400, {100, 250, 330})});
    const Confirmed out(asset, syncs);
    ASSERT_TRUE(out.markers) << out.markers.error().description;
    using core::EditMarker;
    EXPECT_EQ(*out.markers,
              (std::vector{at<EditMarker>(100), at<EditMarker>(250), at<EditMarker>(330)}));
    EXPECT_EQ(out.lines,
              Strings{"confirmEditsNearSyncs: kept 3 of 41 sync samples as edit markers."});
    ASSERT_EQ(out.reports.size(), 42U);
    for (std::size_t k = 0; k < 41; ++k) {
        EXPECT_DOUBLE_EQ(out.reports[k], static_cast<double>(k + 1) / 41.0 * 0.99 + 0.01);
    }
    EXPECT_EQ(out.reports.back(), 1.0);
    // Frame 0's window holds frames 0 to 3, every other window eight frames.
    EXPECT_EQ(asset.statistics().framesDelivered, 4 + 40 * 8);

    const core::Error own{"FFmpeg", -5, "Input/output error"};
    auto failing = shotsTrack(100, {50});
    failing.faults.failAfterFrames = 2;
    failing.faults.readError = own;
    const Confirmed failed(SyntheticAsset(MediaTime::make(100, 25), {failing}), {at(20), at(50)});
    ASSERT_FALSE(failed.markers);
    EXPECT_EQ(failed.markers.error(), own);
    EXPECT_TRUE(failed.reports.empty() && failed.lines.empty());

    // The stop comes with the first sample's report; the second window is never decoded.
    const SyntheticAsset clip(MediaTime::make(100, 25), {shotsTrack(100, {50})});
    const Confirmed stopped(clip, {at(20), at(50)}, true);
    ASSERT_FALSE(stopped.markers);
    EXPECT_TRUE(scan_error::isCancellation(stopped.markers.error()));
    EXPECT_EQ(clip.statistics().readersMade, 1);
}

}  // namespace
}  // namespace kestrin::scan
