#include <kestrin/app/export_rules.hpp>
#include <kestrin/app/marker_plan.hpp>
#include <kestrin/midi/standard_midi_export_service.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <iterator>
#include <limits>

namespace kestrin::app {
namespace {

using midi::MIDIFrameRate;

TEST(FrameRateRules, DropFrameOnlyAt2997And5994WhereTheUserOutranksTheFile)
{
    const DropFrameSources none;
    const DropFrameSources fileSaysNonDrop{std::nullopt, false};
    const DropFrameSources userSaysDrop{true, false};
    EXPECT_TRUE(effectiveDropFrame(core::kFps2997, none));
    EXPECT_TRUE(effectiveDropFrame(core::kFps5994, none));
    EXPECT_FALSE(effectiveDropFrame(core::kFps2997, fileSaysNonDrop));
    EXPECT_TRUE(effectiveDropFrame(core::kFps2997, userSaysDrop));
    EXPECT_FALSE(effectiveDropFrame(core::kFps25, userSaysDrop));
    EXPECT_FALSE(effectiveDropFrame(core::kFps30, none));
}

core::EditMarker markerAtFrame(std::int64_t frame,
                               std::int32_t fpsNumerator = 25,
                               std::int32_t fpsDenominator = 1)
{
    return {frame, core::MediaTime::make(frame * fpsDenominator, fpsNumerator), std::nullopt};
}

// The cuts of an export: frame 0 and repeats make no marker, the rest are numbered in frame order
// and named at their place on the session timeline.
// Cuts at 25 fps placed from a Video Start ten seconds after the Session Start.
MarkerExport requestAt25(std::vector<core::EditMarker> markers)
{
    return {.markers = std::move(markers),
            .rate = core::kFps25,
            .dropFrame = {},
            .sessionStartDigits = "00595000",
            .videoStartDigits = "01000000",
            .markerName = "{n}|{tc}"};
}

TEST(MarkerPlan, CutsSkipFrameZeroAndRepeatsAndAreNamedInOrder)
{
    const core::Expected<MarkerPlan> plan = planMarkerExport(requestAt25({markerAtFrame(130),
                                                                          markerAtFrame(0),
                                                                          markerAtFrame(50),
                                                                          markerAtFrame(100),
                                                                          markerAtFrame(50)}));
    ASSERT_TRUE(plan.hasValue());
    EXPECT_EQ(plan->rate, MIDIFrameRate::Fps25);
    EXPECT_EQ(plan->sessionStart, "00:59:50:00");
    EXPECT_EQ(plan->videoStart, "01:00:00:00");
    EXPECT_EQ(plan->videoStartFrame, 250);
    const std::vector<PlannedCut> expected = {{50, 2.0, "01:00:02:00", "1|01:00:02:00"},
                                              {100, 4.0, "01:00:04:00", "2|01:00:04:00"},
                                              {130, 5.2, "01:00:05:05", "3|01:00:05:05"}};
    EXPECT_EQ(plan->cuts, expected);

    EXPECT_TRUE(planMarkerExport(requestAt25({markerAtFrame(0)}))->cuts.empty())
        << "the first frame is no cut";
}

// A video that starts before the session has no place in the file: one frame before is refused,
// the same timecode places it at 0. A timecode that does not exist at the rate is refused too.
TEST(MarkerPlan, RefusesAVideoStartBeforeTheSessionOrAnInvalidTimecode)
{
    MarkerExport request = requestAt25({markerAtFrame(50)});
    request.sessionStartDigits = "01000001";
    EXPECT_EQ(planMarkerExport(request).error(),
              exportError(ExportError::videoStartBeforeSessionStart));
    request.sessionStartDigits = "01000000";
    EXPECT_EQ(planMarkerExport(request)->videoStartFrame, 0);
    request.sessionStartDigits = "00006000";
    EXPECT_EQ(planMarkerExport(request).error(), exportError(ExportError::invalidTimecode))
        << "second 60";
}

// Drop-frame labels at 29.97: Video 10:00:00;00 is 1798 frames after Session 09:59:00;02 (the
// first label of a minute that drops two); the cut 30 frames in is 10:00:01;00.
TEST(MarkerPlan, DropFrameLabelsCountFromTheSessionAndFillTheCutList)
{
    const core::Expected<MarkerPlan> plan =
        planMarkerExport({.markers = {markerAtFrame(30, 30000, 1001)},
                          .rate = core::kFps2997,
                          .dropFrame = {},
                          .sessionStartDigits = "09590002",
                          .videoStartDigits = "10000000",
                          .markerName = kDefaultMarkerName});
    ASSERT_TRUE(plan.hasValue());
    EXPECT_EQ(plan->videoStartFrame, 1798);
    EXPECT_EQ(plan->cuts, (std::vector<PlannedCut>{{30, 1.001, "10:00:01;00", "Cut 1"}}));
    EXPECT_EQ(cutListText(*plan, "a\tb.mov"),
              "# Kestrin cut list 1\n# video\ta b.mov\n# frame rate\t30000/1001\n"
              "# drop-frame\tyes\n# session start\t09:59:00;02\n# video start\t10:00:00;00\n"
              "# video start frame\t1798\nframe\tseconds\ttimecode\tname\n"
              "30\t1.001000\t10:00:01;00\tCut 1\n");
}

// What a damaged scan read, on the session timeline as the cuts are: at 29.97 drop-frame, 1 s of
// a video placed at 01:00:00;00 ends on 01:00:01;00, and 60 s (1798 frames) on 01:00:59;28.
TEST(MarkerPlan, DamageIsSummedUpInTheCutsTimecodes)
{
    MarkerExport request;
    request.rate = core::kFps2997;
    request.sessionStartDigits = "00595800";
    request.videoStartDigits = "01000000";
    const core::Expected<MarkerPlan> plan = planMarkerExport(request);
    ASSERT_TRUE(plan);
    const core::MediaTime minute = core::MediaTime::make(60, 1);
    struct Row
    {
        core::ReadDamage damage;
        std::string text;  // empty: no summary
    };
    const std::vector<Row> rows = {
        {{0, minute, {}}, ""},
        {{2, minute, {}}, "2 damaged frames; cuts may be missing"},
        {{0, minute, core::MediaTime::make(1, 1)},
         "only 01:00:00;00-01:00:01;00 of 01:00:00;00-01:00:59;28 could be read; cuts may be "
         "missing"},
        {{1, {}, core::MediaTime::make(1, 1)},
         "only 01:00:00;00-01:00:01;00 could be read, 1 damaged frame; cuts may be missing"},
    };
    for (const Row& row : rows) {
        const std::optional<DamageSummary> summary = summarizeDamage(row.damage, *plan);
        EXPECT_EQ(summary ? damageText(*summary) : "", row.text);
    }
}

TEST(MarkerPlan, MarkerTextsReplaceNumberAndTimecode)
{
    EXPECT_EQ(markerText("Cut {n} at {tc} {x}", 12, "01:00:00:05"), "Cut 12 at 01:00:00:05 {x}");
    EXPECT_EQ(markerText(kDefaultMarkerName, 3, "01:00:00:05"), "Cut 3");
    EXPECT_EQ(markerText(" ", 3, "01:00:00:05"), " ");
}

// A marker lies where its time falls on the session's timecode, whatever the video's own rate.
TEST(ExportRules, TimecodeFramesComeFromTheMarkersTimes)
{
    using core::MediaTime;
    struct Row
    {
        std::int64_t frameIndex;
        MediaTime time;
        core::FrameRate rate;
        std::int64_t frame;
    };
    const Row rows[] = {
        {30, MediaTime::make(2, 1), core::kFps23976, 48},    // a 15 fps video in a 23.976 session
        {100, MediaTime::make(100, 120), core::kFps60, 50},  // a 120 fps video at 60
        {45, MediaTime::make(45045, 30000), core::kFps2997, 45},  // the file's own rate: its index
        {45, MediaTime::make(1501500, 1000000), core::kFps2997, 45},  // on a microsecond clock
        {7, MediaTime::make(7007, 24000), core::kFps23976, 7},
        {12, MediaTime::make(12, 25), core::kFps25, 12},
        {1000, MediaTime::make(120'000'000'000'000, 1), core::kFps60, 7'200'000'000'000'000},
        {9, MediaTime::invalid(), core::kFps25, 9},  // no time: the index
    };
    for (const Row& row : rows) {
        EXPECT_EQ(timecodeFrameOf({row.frameIndex, row.time, std::nullopt}, row.rate), row.frame)
            << row.frameIndex << " at " << row.rate.framesPerSecond();
    }
}

TEST(ExportRules, OffsetCountsFromSessionStartToVideoStart)
{
    EXPECT_EQ(videoStartOffsetFrames(core::kFps25, {}, "00000000", "00001000"), 250);
    EXPECT_EQ(videoStartOffsetFrames(core::kFps2997, {}, "00000000", "01000000"), 107892);
    EXPECT_EQ(videoStartOffsetFrames(core::kFps2997, {false, std::nullopt}, "00000000", "01000000"),
              108000);
    EXPECT_EQ(videoStartOffsetFrames(core::kFps25, {}, "00001000", "00000000"), -250);
    EXPECT_EQ(videoStartOffsetFrames(core::kFps2997, {}, "00010000", "01000000"),
              std::nullopt);  // dropped label
    EXPECT_EQ(videoStartOffsetFrames(core::kFps25, {}, "00000000", "00006000"), std::nullopt);
}

class MakeMIDIData : public testing::Test
{
protected:
    midi::StandardMIDIExportService exporter_{midi::MarkerFileLayout::Plain};
    MarkerExport request_{{core::EditMarker{100, core::MediaTime::make(4, 1), std::nullopt}},
                          core::kFps25,
                          {},
                          "00000000",
                          "00001000",
                          " "};
};

std::vector<std::uint8_t> goldenFile(const std::string& name)
{
    std::ifstream golden(
        std::string(std::getenv("KESTRIN_SOURCE_DIR")) + "/libs/midi/tests/data/" + name,
        std::ios::binary);
    return {std::istreambuf_iterator<char>(golden), {}};
}

// Blank names in the plain layout give the first layout; the defaults give the workstation one.
TEST_F(MakeMIDIData, WorkedExampleIsTheGoldenFileInEitherLayout)
{
    const auto bytes = makeMIDIData(request_, exporter_);
    ASSERT_TRUE(bytes) << bytes.error().description;
    EXPECT_EQ(*bytes, goldenFile("worked_example_25fps.mid"));

    midi::StandardMIDIExportService workstation;
    MarkerExport named = request_;
    named.markerName = kDefaultMarkerName;
    EXPECT_EQ(makeMIDIData(named, workstation).value(),
              goldenFile("worked_example_25fps_workstation.mid"));
}

TEST_F(MakeMIDIData, RefusesWithoutMarkersOrWithAnInvalidTimecode)
{
    MarkerExport empty = request_;
    empty.markers.clear();
    EXPECT_EQ(makeMIDIData(empty, exporter_).error().description,
              "There are no markers to export.");
    MarkerExport invalid = request_;
    invalid.sessionStartDigits = "00006000";
    EXPECT_EQ(makeMIDIData(invalid, exporter_).error().description,
              "Invalid timecode. Please check Session Start and Video Start.");

    MarkerExport early = request_;
    early.sessionStartDigits = "00002000";
    EXPECT_EQ(makeMIDIData(early, exporter_).error().description,
              "Video Start is before Session Start.");
}

}  // namespace
}  // namespace kestrin::app
