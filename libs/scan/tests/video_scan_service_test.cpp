#include <kestrin/media_testing/synthetic_asset.hpp>
#include <kestrin/scan/scan_error.hpp>
#include <kestrin/scan/video_scan_service.hpp>

#include <gtest/gtest.h>

#include <condition_variable>
#include <latch>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrin::scan {
namespace {

using core::EditMarker;
using core::Error;
using core::Expected;
using core::MediaTime;
using MarkerList = std::vector<EditMarker>;
using Strings = std::vector<std::string>;

const Error kReadError{"FFmpeg", -5, "Input/output error"};
const MarkerList kMarkers = {EditMarker{12, MediaTime::make(12, 25), std::nullopt}};

// "clip.mov" holds an audio track, then two video tracks: the scan must take track 1.
std::shared_ptr<const media::AssetOpener> makeOpener()
{
    const auto video = [](std::int64_t frames) {
        const auto always = [](std::int64_t) {
            return true;
        };
        return media_testing::makeVideoTrack(
            25, frames, [](std::int64_t) { return media_testing::flatPicture(0); }, always);
    };
    media_testing::SyntheticTrack audio;
    audio.mediaType = media::MediaType::audio;
    const auto asset = [](std::vector<media_testing::SyntheticTrack> tracks) {
        return std::make_shared<media_testing::SyntheticAsset>(MediaTime::make(2, 1), tracks);
    };
    auto opener = std::make_shared<media_testing::SyntheticAssetOpener>();
    opener->add("clip.mov", asset({audio, video(50), video(10)}));
    opener->add("audio.wav", asset({audio}));
    return opener;
}

// The events, space-separated: T and N for the modes trusted and noKeyframes, else the fraction.
std::string drain(ScanEventStream& events)
{
    std::string seen;
    while (const auto event = events.next()) {
        seen += seen.empty() ? "" : " ";
        if (event->kind() == core::ProgressEvent::Kind::mode) {
            seen += event->scanMode() == core::ScanMode::trustedKeyframes ? "T" : "N";
        } else {
            seen += core::shortestDecimal(event->fraction());
        }
    }
    return seen;
}

// What the scripted steps answer; the detector's steps report `fractions` first.
struct Script
{
    Expected<bool> trusted = true;
    bool hasSyncs = true;
    std::vector<double> fractions = {};
    Expected<MarkerList> markers = kMarkers;
    bool throws = false;
};

// Steps that answer from `script` and append their names to `calls`, on the worker thread: read
// `calls` after waitForResult(), which orders the accesses. Keyframe mode runs one stage, full
// decode two of equal shares, the second passing on what the first found.
ScanSteps scriptedSteps(const Script& script, std::string& calls)
{
    const auto find = [&script, &calls](const char* name, const DetectionContext& context) {
        calls += name;
        for (const double fraction : script.fractions) {
            context.reportProgress(fraction);
        }
        if (script.throws) {
            throw std::runtime_error("bad state");
        }
        return script.markers;
    };
    ScanSteps steps;
    steps.decideMode = [&](const auto&, const media::Track& track, const auto&, const auto&) {
        calls += "trust" + std::to_string(track.trackIndex());
        return script.trusted ? Expected<core::ScanMode>(
                   *script.trusted ? core::ScanMode::trustedKeyframes : core::ScanMode::noKeyframes)
                              : script.trusted.error();
    };
    const auto confirm = [&script, &calls, find](const DetectionContext& context, MarkerList) {
        if (!script.hasSyncs) {
            calls += " nosyncs";
            context.switchMode(core::ScanMode::noKeyframes);
            return Expected<MarkerList>(MarkerList{});
        }
        return find(" confirm", context);
    };
    const auto detect = [find](const DetectionContext& context, MarkerList) {
        return find(" detect", context);
    };
    const auto passOn = [&calls](const DetectionContext& context, MarkerList candidates) {
        calls += " verify" + std::to_string(candidates.size());
        context.reportProgress(1.0);
        return Expected<MarkerList>(std::move(candidates));
    };
    steps.detector = Detector{.name = "scripted",
                              .keyframeStages = {{confirm, 1.0}},
                              .fullDecodeStages = {{detect, 1.0}, {passOn, 1.0}}};
    return steps;
}

TEST(VideoScanService, EventSequencesAndResultsFollowTheOutcome)
{
    // Path, script, events, result and the steps called.
    const std::tuple<const char*, Script, const char*, Expected<MarkerList>, const char*> rows[] = {
        {"missing.mov", {}, "", Error{"POSIX", 2, "The file “missing.mov” does not exist."}, ""},
        {"audio.wav", {}, "", scan_error::noVideoTrack(), ""},
        {"clip.mov", {.trusted = kReadError}, "", kReadError, "trust1"},
        {"clip.mov", {.hasSyncs = false}, "T 1.0 N", MarkerList{}, "trust1 nosyncs"},
        {"clip.mov", {.fractions = {0.25, 0.5}}, "T 0.25 0.5 1.0", kMarkers, "trust1 confirm"},
        // Two stages of equal share: the first maps onto 0..0.5, the second onto 0.5..1.
        {"clip.mov",
         {.trusted = false, .fractions = {-0.2, 0.3, 1.7}},
         "N 0.0 0.15 0.5 1.0 1.0",
         kMarkers,
         "trust1 detect verify1"},
        // An error after the mode event: no final progress, and no later stage.
        {"clip.mov",
         {.trusted = false, .fractions = {0.3}, .markers = kReadError},
         "N 0.15",
         kReadError,
         "trust1 detect"},
        {"clip.mov",
         {.fractions = {0.5}, .throws = true},
         "T 0.5",
         scan_error::unexpectedFailure("bad state"),
         "trust1 confirm"},
    };
    for (const auto& [path, script, events, result, calls] : rows) {
        SCOPED_TRACE(events);
        std::string called;
        Strings lines;
        const VideoScanService service(
            makeOpener(),
            core::Log([&](std::string_view line) { lines.emplace_back(line); }),
            scriptedSteps(script, called));
        Scan scan = service.scanForEdits(path);
        const Expected<MarkerList> outcome = scan.handle.waitForResult();
        EXPECT_TRUE(scan.handle.isFinished());
        ASSERT_TRUE(scan.events->isFinished());
        EXPECT_EQ(drain(*scan.events), events);
        EXPECT_EQ(outcome.hasValue() ? *outcome : MarkerList{}, result ? *result : MarkerList{});
        EXPECT_EQ(outcome ? Error{} : outcome.error(), result ? Error{} : result.error());
        EXPECT_EQ(called, calls);
        const char* line = script.trusted.hasValue() && *script.trusted ? "🧭 trusted? true"
                                                                        : "🧭 trusted? false";
        EXPECT_EQ(lines, *events == '\0' ? Strings{} : Strings{line});
    }
}

TEST(VideoScanService, LateConsumerGetsTheOldestEightAndTheEnd)
{
    const Script script{.fractions = {0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7, 0.8}};
    std::string calls;
    const VideoScanService service(
        makeOpener(), core::Log::discard(), scriptedSteps(script, calls));
    Scan scan = service.scanForEdits("clip.mov");
    ASSERT_TRUE(scan.handle.waitForResult());
    EXPECT_EQ(drain(*scan.events), "T 0.1 0.2 0.3 0.4 0.5 0.6 0.7");
    EXPECT_EQ(scan.events->droppedCount(), 2);  // 0.8 and the final 1.0
    EXPECT_TRUE(scan.events->hasEnded());

    // Every frame a sync sample: the default steps do not trust the keyframes and decode it all.
    Scan real = VideoScanService(makeOpener(), core::Log::discard()).scanForEdits("clip.mov");
    ASSERT_TRUE(real.handle.waitForResult());
    const std::string events = drain(*real.events);
    EXPECT_TRUE(events.starts_with("N ") && events.ends_with(" 1.0")) << events;
}

// Steps whose detection reports 0.1, counts `started` down, then waits for its stop token and
// fails with an error of its own, as an interrupted read does.
ScanSteps blockingSteps(std::latch& started)
{
    ScanSteps steps;
    steps.decideMode = [](auto&&...) {
        return Expected<core::ScanMode>(core::ScanMode::noKeyframes);
    };
    const auto block = [&started](const DetectionContext& context, MarkerList) {
        context.reportProgress(0.1);
        started.count_down();
        std::mutex mutex;
        std::unique_lock lock(mutex);
        std::condition_variable_any().wait(lock, context.stopToken, [] { return false; });
        return Expected<MarkerList>(kReadError);
    };
    steps.detector = Detector{.name = "blocking", .fullDecodeStages = {{block, 1.0}}};
    return steps;
}

TEST(VideoScanService, StopOrDestroyedHandleEndsTheScanAsCancelled)
{
    std::latch started(1);
    std::latch completed(1);
    const VideoScanService service(makeOpener(), core::Log::discard(), blockingSteps(started));
    Scan scan = service.scanForEdits("clip.mov", [&completed] { completed.count_down(); });
    started.wait();
    EXPECT_FALSE(scan.handle.isFinished());
    scan.handle.requestStop();
    const Expected<MarkerList> result = scan.handle.waitForResult();
    ASSERT_FALSE(result);
    EXPECT_TRUE(scan_error::isCancellation(result.error()));
    completed.wait();
    EXPECT_EQ(drain(*scan.events), "N 0.1");

    // A handle destroyed mid-step stops and joins; a scan started meanwhile is not held up.
    std::latch blocked(1);
    const VideoScanService blocking(makeOpener(), core::Log::discard(), blockingSteps(blocked));
    auto doomed = std::make_unique<Scan>(blocking.scanForEdits("clip.mov"));
    const std::shared_ptr<ScanEventStream> events = doomed->events;
    blocked.wait();
    std::string calls;
    const Script script;
    const VideoScanService other(makeOpener(), core::Log::discard(), scriptedSteps(script, calls));
    EXPECT_EQ(*other.scanForEdits("clip.mov").handle.waitForResult(), kMarkers);
    doomed.reset();
    ASSERT_TRUE(events->isFinished());
    EXPECT_EQ(drain(*events), "N 0.1");
}

}  // namespace
}  // namespace kestrin::scan

namespace kestrin::scan {
namespace {

// What the readers of a scan meet comes back with its markers: each damaged frame once, however
// often the detector reads it, and a track whose data ends before its declared duration.
TEST(VideoScanService, DamageCountsEachDamagedFrameOnceAndFindsWhereTheDataEnds)
{
    struct Row
    {
        std::string what;
        std::optional<MediaTime> declared;  // the track holds 2 s: 50 frames at 25 fps
        std::vector<std::size_t> damagedSamples;
        core::ReadDamage expected;
    };
    const MediaTime twoSeconds = MediaTime::make(2, 1);
    const std::vector<Row> rows = {
        {"intact", twoSeconds, {}, {0, twoSeconds, {}}},
        {"no declared duration", {}, {}, {0, {}, {}}},
        {"damaged frames", twoSeconds, {3, 20, 21}, {3, twoSeconds, {}}},
        {"data ends a second early",
         MediaTime::make(3, 1),
         {7},
         {1, MediaTime::make(3, 1), twoSeconds}},
        {"two frames short is the end",
         MediaTime::make(52, 25),
         {},
         {0, MediaTime::make(52, 25), {}}},
        {"three frames short is not",
         MediaTime::make(53, 25),
         {},
         {0, MediaTime::make(53, 25), twoSeconds}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.what);
        media_testing::SyntheticTrack track = media_testing::makeVideoTrack(
            25,
            50,
            [](std::int64_t frame) { return media_testing::flatPicture(frame < 25 ? 0 : 200); },
            [](std::int64_t frame) { return frame % 10 == 0; });
        track.declaredDuration = row.declared;
        for (const std::size_t sample : row.damagedSamples) {
            track.samples[sample].isDamaged = true;
        }
        auto opener = std::make_shared<media_testing::SyntheticAssetOpener>();
        opener->add(
            "clip.mov",
            std::make_shared<media_testing::SyntheticAsset>(twoSeconds, std::vector{track}));
        // Reads the whole track, then the window around its middle again.
        const auto read = [](const DetectionContext& context, MarkerList) -> Expected<MarkerList> {
            for (const auto& range : {std::optional<core::MediaTimeRange>{},
                                      std::optional{core::MediaTimeRange{
                                          MediaTime::make(16, 25), MediaTime::make(8, 25)}}}) {
                auto reader = context.asset.makeFrameReader(
                    context.track, media::FrameReaderSettings{.timeRange = range});
                if (!reader || !(*reader)->startReading()) {
                    return Error{"test", 1, "no reader"};
                }
                while ((*reader)->nextFrame()) {
                }
            }
            return MarkerList{};
        };
        ScanSteps steps;
        steps.decideMode = [](const auto&, const auto&, const auto&, const auto&) {
            return Expected<core::ScanMode>(core::ScanMode::noKeyframes);
        };
        steps.detector = Detector{.name = "reads", .fullDecodeStages = {{read, 1.0}}};
        const VideoScanService service(opener, core::Log::discard(), steps);
        const Scan scan = service.scanForEdits("clip.mov");
        ASSERT_TRUE(scan.handle.waitForResult());
        EXPECT_EQ(scan.handle.damage(), row.expected)
            << scan.handle.damage().damagedFrames << " damaged, covered until "
            << scan.handle.damage().coveredUntil.value_or(MediaTime()).seconds();
    }
}

}  // namespace
}  // namespace kestrin::scan
