#include <kestrin/media_testing/synthetic_asset.hpp>
#include <kestrin/scan/scan_error.hpp>
#include <kestrin/scan/video_scan_service.hpp>

#include <gtest/gtest.h>

#include <condition_variable>
#include <latch>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kestrin::scan {
namespace {

using core::EditMarker;
using core::Error;
using core::Expected;
using core::MediaTime;
using core::SyncSample;
using Strings = std::vector<std::string>;
using MarkerList = std::vector<EditMarker>;

constexpr const char* kClip = "clip.mov";
constexpr const char* kAudioOnly = "audio.wav";
constexpr const char* kMissing = "missing.mov";

media_testing::SyntheticTrack videoTrack(std::int64_t frames)
{
    return media_testing::makeVideoTrack(
        25,
        frames,
        [](std::int64_t) { return media_testing::flatPicture(0); },
        [](std::int64_t) { return true; });
}

// The clip holds an audio track, then two video tracks: the scan must take track 1.
std::shared_ptr<const media::AssetOpener> makeOpener()
{
    auto opener = std::make_shared<media_testing::SyntheticAssetOpener>();
    media_testing::SyntheticTrack audio;
    audio.mediaType = media::MediaType::audio;
    opener->add(kClip,
                std::make_shared<media_testing::SyntheticAsset>(
                    MediaTime::make(2, 1), std::vector{audio, videoTrack(50), videoTrack(10)}));
    opener->add(
        kAudioOnly,
        std::make_shared<media_testing::SyntheticAsset>(MediaTime::make(2, 1), std::vector{audio}));
    return opener;
}

std::string describe(const core::ProgressEvent& event)
{
    if (event.kind() == core::ProgressEvent::Kind::mode) {
        return event.scanMode() == core::ScanMode::trustedKeyframes ? "mode(trusted)"
                                                                    : "mode(noKeyframes)";
    }
    return "progress(" + core::shortestDecimal(event.fraction()) + ")";
}

Strings drain(ScanEventStream& events)
{
    Strings seen;
    while (const auto event = events.next()) {
        seen.push_back(describe(*event));
    }
    return seen;
}

Error readError()
{
    return {"FFmpeg", -5, "Input/output error"};
}
MarkerList someMarkers()
{
    return {EditMarker{12, MediaTime::make(12, 25), std::nullopt}};
}

// What the scripted steps answer; confirmation and detection report `fractions` first.
struct Script
{
    Expected<bool> trusted = true;
    Expected<std::vector<SyncSample>> syncs =
        std::vector{SyncSample{0, MediaTime::make(0, 25), std::nullopt}};
    std::vector<double> fractions = {};
    Expected<MarkerList> markers = someMarkers();
    bool throws = false;
};

// Set by the steps on the worker thread; read after waitForResult(), which orders the accesses.
struct Calls
{
    Strings steps;
    int trackIndex = -1;
};

ScanSteps scriptedSteps(const Script& script, Calls& calls)
{
    ScanSteps steps;
    steps.decideTrust = [&script, &calls](
                            const media::Asset&, const media::Track& track, const core::Log&) {
        calls.steps.push_back("trust");
        calls.trackIndex = track.trackIndex();
        return script.trusted;
    };
    steps.collectSyncs = [&script, &calls](const media::Track&, const core::Log&) {
        calls.steps.push_back("syncs");
        return script.syncs;
    };
    const auto finding = [&script](const std::string& name, Calls& record) {
        return [&script, &record, name](const ProgressCallback& report) -> Expected<MarkerList> {
            record.steps.push_back(name);
            for (const double fraction : script.fractions) {
                report(fraction);
            }
            if (script.throws) {
                throw std::runtime_error("bad state");
            }
            return script.markers;
        };
    };
    steps.confirmEdits = [run = finding("confirm", calls)](const media::Asset&,
                                                           const media::Track&,
                                                           const std::vector<SyncSample>&,
                                                           const ProgressCallback& report,
                                                           const core::Log&,
                                                           const std::stop_token&) {
        return run(report);
    };
    steps.detectEdits = [run = finding("detect", calls)](const media::AssetOpener&,
                                                         const std::filesystem::path&,
                                                         const ProgressCallback& report,
                                                         const std::stop_token&) {
        return run(report);
    };
    return steps;
}

struct Row
{
    const char* name;
    std::filesystem::path path;
    Script script;
    Strings events;
    Expected<MarkerList> result;
    Strings steps;
};

TEST(VideoScanService, EventSequencesAndResultsFollowTheOutcome)
{
    const Expected<std::vector<SyncSample>> noSyncs = std::vector<SyncSample>{};
    const std::vector<Row> rows = {
        {"missing file",
         kMissing,
         {},
         {},
         Error{"POSIX", 2, "The file “missing.mov” does not exist."},
         {}},
        {"audio only", kAudioOnly, {}, {}, scan_error::noVideoTrack(), {}},
        {"trust fails", kClip, {.trusted = readError()}, {}, readError(), {"trust"}},
        {"trusted, no syncs",
         kClip,
         {.syncs = noSyncs},
         {"mode(trusted)", "progress(1.0)", "mode(noKeyframes)"},
         MarkerList{},
         {"trust", "syncs"}},
        {"trusted, confirmed",
         kClip,
         {.fractions = {0.25, 0.5}},
         {"mode(trusted)", "progress(0.25)", "progress(0.5)", "progress(1.0)"},
         someMarkers(),
         {"trust", "syncs", "confirm"}},
        {"not trusted, detected, fractions limited",
         kClip,
         {.trusted = false, .fractions = {-0.2, 0.3, 1.7}, .markers = MarkerList{}},
         {"mode(noKeyframes)", "progress(0.0)", "progress(0.3)", "progress(1.0)", "progress(1.0)"},
         MarkerList{},
         {"trust", "detect"}},
        {"detection fails after progress",
         kClip,
         {.trusted = false, .fractions = {0.3}, .markers = readError()},
         {"mode(noKeyframes)", "progress(0.3)"},
         readError(),
         {"trust", "detect"}},
        {"confirmation throws",
         kClip,
         {.fractions = {0.5}, .throws = true},
         {"mode(trusted)", "progress(0.5)"},
         scan_error::unexpectedFailure("bad state"),
         {"trust", "syncs", "confirm"}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        Calls calls;
        Strings lines;
        const VideoScanService service(
            makeOpener(),
            core::Log([&](std::string_view line) { lines.emplace_back(line); }),
            scriptedSteps(row.script, calls));
        Scan scan = service.scanForEdits(row.path);
        const Expected<MarkerList> result = scan.handle.waitForResult();

        EXPECT_TRUE(scan.handle.isFinished());
        ASSERT_TRUE(scan.events->isFinished());
        EXPECT_EQ(drain(*scan.events), row.events);
        ASSERT_EQ(result.hasValue(), row.result.hasValue());
        if (result) {
            EXPECT_EQ(*result, *row.result);
        } else {
            EXPECT_EQ(result.error(), row.result.error());
        }
        EXPECT_EQ(calls.steps, row.steps);
        if (!row.events.empty()) {
            EXPECT_EQ(calls.trackIndex, 1);
            EXPECT_EQ(
                lines,
                Strings{row.script.trusted.value() ? "🧭 trusted? true" : "🧭 trusted? false"});
        }
    }
}

TEST(VideoScanService, ConsumerThatWaitsGetsTheOldestEightAndTheEnd)
{
    const Script script{.trusted = false,
                        .fractions = {0.1, 0.2, 0.3, 0.4, 0.5, 0.6, 0.7, 0.8, 0.9}};
    Calls calls;
    const VideoScanService service(
        makeOpener(), core::Log::discard(), scriptedSteps(script, calls));
    Scan scan = service.scanForEdits(kClip);
    ASSERT_TRUE(scan.handle.waitForResult());

    const Strings expected = {"mode(noKeyframes)",
                              "progress(0.1)",
                              "progress(0.2)",
                              "progress(0.3)",
                              "progress(0.4)",
                              "progress(0.5)",
                              "progress(0.6)",
                              "progress(0.7)"};
    EXPECT_EQ(drain(*scan.events), expected);
    EXPECT_EQ(scan.events->droppedCount(), 3);  // 0.8, 0.9 and the final 1.0
    EXPECT_TRUE(scan.events->hasEnded());
}

TEST(VideoScanService, DefaultStepsRunTheRealOperations)
{
    // Every frame a sync sample: the keyframes are not trusted, and the clip is decoded whole.
    const VideoScanService service(makeOpener(), core::Log::discard());
    Scan scan = service.scanForEdits(kClip);
    const Expected<MarkerList> result = scan.handle.waitForResult();
    ASSERT_TRUE(result) << result.error().description;
    const Strings events = drain(*scan.events);
    ASSERT_GE(events.size(), 2U);
    EXPECT_EQ(events.front(), "mode(noKeyframes)");
    EXPECT_EQ(events.back(), "progress(1.0)");
}

// A detection that reports 0.1, says it has started, then runs until its stop token is stopped
// and fails with an error of its own, as an interrupted read does.
struct BlockingDetection
{
    std::latch started{1};

    ScanSteps steps()
    {
        ScanSteps steps;
        steps.decideTrust = [](const media::Asset&, const media::Track&, const core::Log&) {
            return Expected<bool>(false);
        };
        steps.detectEdits = [this](const media::AssetOpener&,
                                   const std::filesystem::path&,
                                   const ProgressCallback& report,
                                   std::stop_token stopToken) -> Expected<MarkerList> {
            report(0.1);
            started.count_down();
            std::mutex mutex;
            std::condition_variable_any stopped;
            std::unique_lock lock(mutex);
            stopped.wait(lock, std::move(stopToken), [] { return false; });
            return readError();
        };
        return steps;
    }
};

TEST(VideoScanService, StopRequestEndsTheScanAsCancelled)
{
    BlockingDetection detection;
    std::latch completed(1);
    const VideoScanService service(makeOpener(), core::Log::discard(), detection.steps());
    Scan scan = service.scanForEdits(kClip, [&completed] { completed.count_down(); });
    detection.started.wait();
    EXPECT_FALSE(scan.handle.isFinished());

    scan.handle.requestStop();
    const Expected<MarkerList> result = scan.handle.waitForResult();
    ASSERT_FALSE(result);
    EXPECT_TRUE(scan_error::isCancellation(result.error()));
    completed.wait();
    EXPECT_EQ(drain(*scan.events), (Strings{"mode(noKeyframes)", "progress(0.1)"}));
}

TEST(VideoScanService, DestroyedHandleStopsAndJoinsWhileOtherScansRun)
{
    BlockingDetection detection;
    const VideoScanService blocking(makeOpener(), core::Log::discard(), detection.steps());
    auto scan = std::make_unique<Scan>(blocking.scanForEdits(kClip));
    const std::shared_ptr<ScanEventStream> events = scan->events;
    detection.started.wait();

    // A second scan, started while the first is blocked, is not held up by it.
    const Script script;
    Calls calls;
    const VideoScanService other(makeOpener(), core::Log::discard(), scriptedSteps(script, calls));
    Scan second = other.scanForEdits(kClip);
    EXPECT_EQ(*second.handle.waitForResult(), someMarkers());

    scan.reset();
    ASSERT_TRUE(events->isFinished());
    EXPECT_EQ(drain(*events), (Strings{"mode(noKeyframes)", "progress(0.1)"}));
}

}  // namespace
}  // namespace kestrin::scan
