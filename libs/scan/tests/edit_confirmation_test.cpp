#include <kestrin/media_testing/synthetic_asset.hpp>
#include <kestrin/scan/edit_confirmation.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <stop_token>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kestrin::scan {
namespace {

using core::MediaTime;
using media_testing::SyntheticAsset;
using media_testing::SyntheticTrack;

constexpr int kRate = 25;
constexpr double kSpread = 1.4826;
constexpr double kLeast = 0.000001;

// Thumbnails of one row of five samples each; a single value stands for five equal samples.
std::vector<LumaPlane> thumbnails(const std::vector<std::vector<int>>& samples)
{
    std::vector<LumaPlane> planes;
    for (const std::vector<int>& row : samples) {
        LumaPlane& plane = planes.emplace_back(5, 1);
        for (std::size_t p = 0; p < 5; ++p) {
            plane.bytes()[p] = static_cast<std::uint8_t>(row[row.size() == 1 ? 0 : p]);
        }
    }
    return planes;
}

core::SyncSample syncAt(std::int64_t frame)
{
    return {frame, MediaTime::make(frame, kRate), std::nullopt};
}

TEST(ConfirmationWindow, ScoresTheLargestChangeAndRejectsWeakPeaksAndFlashes)
{
    struct Row
    {
        const char* name;
        std::vector<std::vector<int>> samples;
        double absAtBoundary;
        double rZ;
        bool keep;
    };
    const Row rows[] = {
        {"two thumbnails at 11 x 1.6", {{100}, {117, 117, 118, 118, 118}}, 17.6, 0, true},
        {"two thumbnails just under", {{100}, {117, 117, 117, 118, 118}}, 17.4, 0, false},
        // Diffs 1 2 97 5 6: others 1 2 5 6, median 3.5, deviations 2.5 1.5 1.5 2.5, MAD 2.
        {"a clear cut", {{100}, {101}, {103}, {200}, {205}, {211}}, 97, 93.5 / (2 * kSpread), true},
        {"under the absolute threshold", {{100}, {100}, {110}, {110}}, 10, 10 / kLeast, false},
        // Diffs 0 0 17 10 10: median 5, MAD 5.
        {"a weak outlier",
         {{100}, {100}, {100}, {117}, {127}, {137}},
         17,
         12 / (5 * kSpread),
         false},
        {"two equal largest changes", {{100}, {100}, {130}, {160}, {160}}, 30, 30 / kLeast, false},
        // Diffs 40 78 38: the largest beats 1.6 x 40, but the thumbnail after it averages 114
        // against 100 either side. The one before it averages 100.
        {"a flash",
         {{100}, {50, 50, 150, 150, 100}, {150, 150, 70, 70, 130}, {100}},
         78,
         39 / kSpread,
         false},
        // The flash test needs two thumbnails after the change.
        {"a cut into the last thumbnail", {{100}, {100}, {100}, {200}}, 100, 100 / kLeast, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const auto candidate = scoreWindow(syncAt(7), thumbnails(row.samples), {});
        ASSERT_TRUE(candidate);
        EXPECT_EQ(candidate->idx, 7);
        EXPECT_EQ(candidate->time, MediaTime::make(7, kRate));
        EXPECT_DOUBLE_EQ(candidate->absAtBoundary, row.absAtBoundary);
        EXPECT_DOUBLE_EQ(candidate->rZ, row.rZ);
        EXPECT_EQ(candidate->keep, row.keep);
    }
    EXPECT_FALSE(scoreWindow(syncAt(7), thumbnails({{100}}), {}));
}

TEST(ConfirmationWindow, SpansFourFrameDurationsRoundedTo600thsEitherSideFromZeroOn)
{
    // Nominal rate, then the frame duration in 1/600 s.
    const std::pair<core::Expected<float>, std::int64_t> rates[] = {
        {25.0F, 24}, {23.976F, 25}, {29.97F, 20}, {0.0F, 20}, {core::Error{"FFmpeg", -5, ""}, 20}};
    for (const auto& [rate, duration] : rates) {
        EXPECT_EQ(confirmationFrameDuration(rate), MediaTime::make(duration, 600));
    }
    const MediaTime frame = MediaTime::make(24, 600);
    EXPECT_EQ(
        confirmationWindow(MediaTime::make(2, 1), frame, {}),
        core::MediaTimeRange::fromStartEnd(MediaTime::make(1104, 600), MediaTime::make(1296, 600)));
    EXPECT_EQ(confirmationWindow(MediaTime::make(2, kRate), frame, {}),
              core::MediaTimeRange::fromStartEnd(MediaTime::zero(), MediaTime::make(144, 600)));
}

TEST(ConfirmationMerge, KeepsTheStrongestOfNearbyKeptCandidates)
{
    const MediaTime t;
    // Candidates (idx, time, absAtBoundary, rZ, keep), then the indices of the group bests.
    const std::pair<std::vector<ScoredCandidate>, std::vector<std::int64_t>> rows[] = {
        {{{100, t, 20, 0, true}, {101, t, 30, 0, true}, {105, t, 25, 0, true}}, {101, 105}},
        {{{10, t, 1, 0, true}, {12, t, 2, 0, true}, {14, t, 3, 0, true}}, {14}},
        {{{10, t, 3, 0, true}, {12, t, 2, 0, true}, {14, t, 1, 0, true}}, {10, 14}},
        {{{105, t, 5, 0, true}, {102, t, 50, 0, false}, {100, t, 5, 0, true}}, {100, 105}},
    };
    for (const auto& [candidates, expected] : rows) {
        std::vector<std::int64_t> bests;
        for (const ScoredCandidate& best : mergeKeptCandidates(candidates, 2)) {
            bests.push_back(best.idx);
        }
        EXPECT_EQ(bests, expected);
    }
}

// A 25 fps track of flat frames whose luma steps up at each of `cuts`.
SyntheticTrack shotsTrack(std::int64_t count, std::vector<std::int64_t> cuts)
{
    const auto picture = [cuts](std::int64_t frame) {
        const auto shot =
            std::count_if(cuts.begin(), cuts.end(), [frame](auto c) { return frame >= c; });
        return media_testing::flatPicture(static_cast<std::uint8_t>(40 + 50 * shot));
    };
    return media_testing::makeVideoTrack(kRate, count, picture, [](std::int64_t) { return true; });
}

struct Outcome
{
    core::Expected<std::vector<core::EditMarker>> markers = core::Error{};
    std::vector<double> reports;
    std::vector<std::string> lines;
};

// Confirms `syncs` on the asset's first track; `stop`, when given, is requested at every report.
Outcome confirm(const media::Asset& asset,
                const std::vector<core::SyncSample>& syncs,
                const ConfirmationParameters& parameters = {},
                std::stop_source* stop = nullptr)
{
    Outcome out;
    const std::stop_token token = stop != nullptr ? stop->get_token() : std::stop_token{};
    const core::Log log([&out](std::string_view line) { out.lines.emplace_back(line); });
    const auto report = [&out, stop](double fraction) {
        out.reports.push_back(fraction);
        if (stop != nullptr) {
            stop->request_stop();
        }
    };
    const media::Track& track = *(*asset.tracks())[0];
    out.markers = confirmEditsNearSyncs(asset, track, syncs, parameters, report, log, token);
    return out;
}

TEST(ConfirmEditsNearSyncs, MarksTheSyncSamplesAtCutsReportsAndLogs)
{
    const SyntheticAsset asset(MediaTime::make(400, kRate), {shotsTrack(400, {100, 250, 330})});
    // Every tenth frame, and frame 101 whose window also holds the cut at 100: the two tie and
    // the earlier stays.
    std::vector<core::SyncSample> syncs;
    for (std::int64_t frame = 0; frame < 400; frame += 10) {
        syncs.push_back(syncAt(frame));
        if (frame == 100) {
            syncs.push_back(syncAt(101));
        }
    }
    ConfirmationParameters small;
    small.thumbWidth = 32;
    small.thumbHeight = 18;
    const Outcome out = confirm(asset, syncs, small);
    ASSERT_TRUE(out.markers) << out.markers.error().description;
    EXPECT_EQ(*out.markers,
              (std::vector<core::EditMarker>{{100, MediaTime::make(100, kRate), {}},
                                             {250, MediaTime::make(250, kRate), {}},
                                             {330, MediaTime::make(330, kRate), {}}}));
    EXPECT_EQ(out.lines,
              std::vector<std::string>{
                  "confirmEditsNearSyncs: kept 3 of 41 sync samples as edit markers."});
    ASSERT_EQ(out.reports.size(), 42U);
    for (std::size_t k = 0; k < 41; ++k) {
        EXPECT_DOUBLE_EQ(out.reports[k], static_cast<double>(k + 1) / 41.0 * 0.99 + 0.01);
    }
    EXPECT_EQ(out.reports.back(), 1.0);
    // Frame 0's window holds frames 0 to 3, every other window eight frames.
    EXPECT_EQ(asset.statistics().framesDelivered, 4 + 40 * 8);

    const Outcome empty = confirm(asset, {});
    ASSERT_TRUE(empty.markers && empty.markers->empty());
    EXPECT_EQ(empty.reports, std::vector<double>{1.0});
    EXPECT_TRUE(empty.lines.empty());
}

TEST(ConfirmEditsNearSyncs, EndsOnADecoderErrorOrAStop)
{
    const core::Error own{"FFmpeg", -5, "Input/output error"};
    SyntheticTrack failing = shotsTrack(100, {50});
    failing.faults.failAfterFrames = 2;
    failing.faults.readError = own;
    const Outcome failed =
        confirm(SyntheticAsset(MediaTime::make(100, kRate), {failing}), {syncAt(20), syncAt(50)});
    ASSERT_FALSE(failed.markers);
    EXPECT_EQ(failed.markers.error(), own);
    EXPECT_TRUE(failed.reports.empty() && failed.lines.empty());

    // The stop comes with the first sample's report; the second window is never decoded.
    const SyntheticAsset asset(MediaTime::make(100, kRate), {shotsTrack(100, {50})});
    std::stop_source stop;
    const Outcome stopped = confirm(asset, {syncAt(20), syncAt(50)}, {}, &stop);
    ASSERT_FALSE(stopped.markers);
    EXPECT_TRUE(scan_error::isCancellation(stopped.markers.error()));
    EXPECT_EQ(asset.statistics().readersMade, 1);
    EXPECT_TRUE(stopped.lines.empty());
}

}  // namespace
}  // namespace kestrin::scan
