#include <kestrin/media_testing/synthetic_asset.hpp>
#include <kestrin/scan/frame_access.hpp>
#include <kestrin/scan/luma_signature.hpp>
#include <kestrin/scan/scan_error.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <optional>
#include <stop_token>
#include <vector>

namespace kestrin::scan {
namespace {

using core::MediaTime;
using core::MediaTimeRange;
using media_testing::flatPicture;
using media_testing::ReaderFaults;
using media_testing::SyntheticAsset;
using media_testing::SyntheticTrack;

constexpr int kRate = 25;

// A 25 fps track of `count` flat frames, frame i at luma(i).
SyntheticTrack flatTrack(std::int64_t count, const std::function<int(std::int64_t)>& luma)
{
    return media_testing::makeVideoTrack(
        kRate,
        count,
        [&luma](std::int64_t i) { return flatPicture(static_cast<std::uint8_t>(luma(i))); },
        [](std::int64_t) { return true; });
}

SyntheticTrack flatTrack(std::int64_t count)
{
    return flatTrack(count, [](std::int64_t i) { return static_cast<int>(i % 200); });
}

const media::Track& firstTrack(const SyntheticAsset& asset)
{
    return *(*asset.tracks())[0];
}

// The block score of two flat frames after the tone curve: every block differs by the same amount.
float flatScore(int luma, int previousLuma)
{
    const auto& curve = signatureToneCurve();
    return static_cast<float>(std::abs(curve[static_cast<std::size_t>(luma)]
                                       - curve[static_cast<std::size_t>(previousLuma)]));
}

ReaderFaults refusesStart(std::optional<core::Error> error)
{
    ReaderFaults faults;
    faults.refuseStart = true;
    faults.startError = std::move(error);
    return faults;
}

ReaderFaults failsAfter(std::int64_t frames, std::optional<core::Error> error)
{
    ReaderFaults faults;
    faults.failAfterFrames = frames;
    faults.readError = std::move(error);
    return faults;
}

struct PassRun
{
    core::Status status;
    SignaturePassState state;
    std::vector<double> reports;
    double lastProgress = 0.0;
};

// Runs a signature pass over the first track of `asset` with a reader from makeTrackReader.
PassRun runPass(const SyntheticAsset& asset,
                std::int64_t stride,
                MediaTime duration,
                double startProgress = 0.0)
{
    PassRun run{{}, SignaturePassState(stride), {}, startProgress};
    auto reader = makeTrackReader(asset, firstTrack(asset));
    EXPECT_TRUE(reader);
    run.status = scoreSignatures(
        **reader,
        duration,
        0.3,
        [&run](double p) { run.reports.push_back(p); },
        run.lastProgress,
        run.state);
    return run;
}

TEST(SignaturePass, ScoresEveryStrideFrameAgainstThePreviousScoredOne)
{
    const auto luma = [](std::int64_t i) {
        return static_cast<int>(5 * i);
    };
    const SyntheticAsset asset(MediaTime::make(40, kRate), {flatTrack(40, luma)});
    for (const std::int64_t stride : {3, 4, 6, 8}) {
        const PassRun run = runPass(asset, stride, MediaTime::make(40, kRate));
        ASSERT_TRUE(run.status.ok()) << run.status.error().description;
        std::vector<FrameScore> expected;
        std::vector<float> inOrder;
        for (std::int64_t frame = stride; frame < 40; frame += stride) {
            expected.push_back({frame, flatScore(luma(frame), luma(frame - stride))});
            inOrder.push_back(expected.back().score);
        }
        EXPECT_EQ(run.state.scoresByFrame, expected) << "stride " << stride;
        EXPECT_EQ(run.state.scoresInOrder, inOrder) << "stride " << stride;
        EXPECT_EQ(run.state.decodedCount, 40);
        EXPECT_EQ(run.state.scoreOfFrame(2 * stride), inOrder[1]);
        EXPECT_EQ(run.state.scoreOfFrame(stride + 1), std::nullopt);
    }
}

TEST(SignaturePass, SamplesWithoutImageAreNotCounted)
{
    // Samples 0..9 at luma 20 x sample; sample 4 has no image, so the frames with an image are
    // samples 0 1 2 3 5 6 7 8 9, and with stride 4 frame 4 is sample 5, frame 8 sample 9.
    SyntheticTrack track = flatTrack(10, [](std::int64_t i) { return static_cast<int>(20 * i); });
    track.samples[4].picture.reset();
    const SyntheticAsset asset(MediaTime::make(10, kRate), {track});
    const PassRun run = runPass(asset, 4, MediaTime::make(10, kRate));
    ASSERT_TRUE(run.status.ok());
    EXPECT_EQ(run.state.decodedCount, 9);
    EXPECT_EQ(run.state.scoresByFrame,
              (std::vector<FrameScore>{{4, flatScore(100, 0)}, {8, flatScore(180, 100)}}));
}

TEST(SignaturePass, ReportsProgressEveryThirtyTwoFramesNeverDecreasing)
{
    struct Row
    {
        const char* name;
        MediaTime duration;
        double startProgress;
        std::vector<double> reports;  // at frames 0, 32, 64 and 96 of 100, 25 fps, weight 0.3
    };
    const Row rows[] = {
        // Frame 32 is at 1.28 s of 4 s: 0.32 x 0.3.
        {"4 s", MediaTime::make(4, 1), 0.0, {0.0, 0.096, 0.192, 0.288}},
        {"earlier progress holds until passed",
         MediaTime::make(4, 1),
         0.15,
         {0.15, 0.15, 0.192, 0.288}},
        {"duration shorter than the frames", MediaTime::make(1, 1), 0.0, {0.0, 0.3, 0.3, 0.3}},
        {"zero duration", MediaTime::zero(), 0.0, {0.0, 0.3, 0.3, 0.3}},
        {"invalid duration", MediaTime::invalid(), 0.0, {0.0, 0.3, 0.3, 0.3}},
    };
    const SyntheticAsset asset(MediaTime::make(4, 1), {flatTrack(100)});
    for (const Row& row : rows) {
        const PassRun run = runPass(asset, 4, row.duration, row.startProgress);
        ASSERT_TRUE(run.status.ok()) << row.name;
        ASSERT_EQ(run.reports.size(), row.reports.size()) << row.name;
        for (std::size_t i = 0; i < row.reports.size(); ++i) {
            EXPECT_NEAR(run.reports[i], row.reports[i], 1e-12) << row.name << ", report " << i;
            EXPECT_LE(run.reports[i], 0.3) << row.name;
            if (i > 0) {
                EXPECT_GE(run.reports[i], run.reports[i - 1]) << row.name;
            }
        }
        EXPECT_EQ(run.lastProgress, run.reports.back()) << row.name;
    }
}

TEST(SignaturePass, ErrorsPreferTheReadersOwn)
{
    const core::Error own{"FFmpeg", -5, "Input/output error"};
    struct Row
    {
        const char* name;
        ReaderFaults faults;
        bool startedBefore;
        core::Error expected;
    };
    const Row rows[] = {
        {"already reading", {}, true, scan_error::readerAlreadyReading()},
        {"refuses to start, own error", refusesStart(own), false, own},
        {"refuses to start silently", refusesStart({}), false, scan_error::failedToStartReading()},
        {"fails part-way, own error", failsAfter(40, own), false, own},
        {"fails part-way silently",
         failsAfter(40, {}),
         false,
         scan_error::readerFailedDuringIteration()},
    };
    for (const Row& row : rows) {
        SyntheticTrack track = flatTrack(100);
        track.faults = row.faults;
        const SyntheticAsset asset(MediaTime::make(4, 1), {track});
        auto reader = makeTrackReader(asset, firstTrack(asset));
        ASSERT_TRUE(reader) << row.name;
        if (row.startedBefore) {
            ASSERT_TRUE((*reader)->startReading());
        }
        SignaturePassState state(4);
        double lastProgress = 0.0;
        const core::Status status =
            scoreSignatures(**reader, MediaTime::make(4, 1), 0.3, {}, lastProgress, state);
        ASSERT_FALSE(status.ok()) << row.name;
        EXPECT_EQ(status.error(), row.expected) << row.name;
    }

    SyntheticTrack unopenable = flatTrack(10);
    unopenable.faults.makeError = own;
    const SyntheticAsset asset(MediaTime::make(4, 1), {unopenable});
    const auto reader = makeTrackReader(asset, firstTrack(asset));
    ASSERT_FALSE(reader);
    EXPECT_EQ(reader.error(), own);
}

TEST(SignaturePass, StopRequestEndsThePassWithTheCancellationError)
{
    // The stop comes with the report at frame 32. A reader made with the token stops by itself;
    // one made without it runs on, and the pass notices at the next frame it takes.
    for (const bool readerHasToken : {true, false}) {
        const SyntheticAsset asset(MediaTime::make(4, 1), {flatTrack(100)});
        std::stop_source stop;
        SignaturePassState state(4);
        double lastProgress = 0.0;
        auto reader = makeTrackReader(
            asset, firstTrack(asset), readerHasToken ? stop.get_token() : std::stop_token{});
        ASSERT_TRUE(reader);
        int reports = 0;
        const core::Status status = scoreSignatures(
            **reader,
            MediaTime::make(4, 1),
            0.3,
            [&](double) {
                if (++reports == 2) {
                    stop.request_stop();
                }
            },
            lastProgress,
            state,
            stop.get_token());
        ASSERT_FALSE(status.ok());
        EXPECT_TRUE(scan_error::isCancellation(status.error()));
        EXPECT_EQ(reports, 2);
        EXPECT_LE(asset.statistics().framesDelivered, 34);
        EXPECT_EQ(state.decodedCount, 33);
    }
}

// An asset that creates no reader and reports no error: the track output cannot be attached.
class AssetWithoutOutput : public media::Asset
{
public:
    [[nodiscard]] core::Expected<MediaTime> duration() const override
    {
        return MediaTime::make(1, 1);
    }
    [[nodiscard]] core::Expected<std::vector<media::TrackPointer>> tracks() const override
    {
        return std::vector<media::TrackPointer>{};
    }
    [[nodiscard]] core::Expected<std::unique_ptr<media::FrameReader>> makeFrameReader(
        const media::Track&, const media::FrameReaderSettings&, std::stop_token) const override
    {
        return std::unique_ptr<media::FrameReader>{};
    }
};

TEST(ReaderSetUp, OutputThatCannotBeAttached)
{
    const SyntheticAsset tracks(MediaTime::make(1, 1), {flatTrack(25)});
    const media::Track& track = firstTrack(tracks);
    const AssetWithoutOutput asset;
    const MediaTimeRange second{MediaTime::zero(), MediaTime::make(1, 1)};

    const auto signatureReader = makeTrackReader(asset, track);
    ASSERT_FALSE(signatureReader);
    EXPECT_EQ(signatureReader.error(), scan_error::cannotAddVideoOutput());

    const auto refinementReader = makeRefinementReader(asset, track, second, 96, 54);
    ASSERT_TRUE(refinementReader);
    EXPECT_EQ(*refinementReader, nullptr);

    const auto window = decodeWindowFrames(asset, track, second, 9, 320, 180);
    ASSERT_TRUE(window);
    EXPECT_TRUE(window->empty());
}

// Reads every frame of `reader` and returns the first sample of each, checking the frame size.
std::vector<int> firstSamples(media::FrameReader& reader, int width, int height)
{
    std::vector<int> samples;
    EXPECT_TRUE(reader.startReading());
    while (const auto frame = reader.nextFrame()) {
        EXPECT_EQ(frame->width, width);
        EXPECT_EQ(frame->height, height);
        samples.push_back(frame->data[0]);
    }
    return samples;
}

TEST(ReaderSetUp, SignatureReadsFullRangeAndRefinementVideoRange)
{
    const SyntheticAsset asset(MediaTime::make(10, kRate),
                               {flatTrack(10, [](std::int64_t) { return 255; })});
    auto signature = makeTrackReader(asset, firstTrack(asset));
    ASSERT_TRUE(signature);
    EXPECT_EQ(firstSamples(**signature, 96, 54), std::vector<int>(10, 255));

    // [2, 5) frame durations: frames 2, 3 and 4, white at 235 in video range.
    const MediaTimeRange range =
        MediaTimeRange::fromStartEnd(MediaTime::make(2, kRate), MediaTime::make(5, kRate));
    auto refinement = makeRefinementReader(asset, firstTrack(asset), range, 96, 54);
    ASSERT_TRUE(refinement);
    EXPECT_EQ(firstSamples(**refinement, 96, 54), std::vector<int>(3, 235));

    const auto window = decodeWindowFrames(asset, firstTrack(asset), range, 9, 320, 180);
    ASSERT_TRUE(window);
    ASSERT_EQ(window->size(), 3U);
    EXPECT_EQ(window->front().at(0, 0), 255);
}

TEST(WindowDecoding, NothingToDecodeMakesNoReader)
{
    struct Row
    {
        const char* name;
        MediaTimeRange range;
        int maxFrames;
    };
    const MediaTime start = MediaTime::make(5, kRate);
    const Row rows[] = {
        {"no frames wanted", {start, MediaTime::make(1, 1)}, 0},
        {"zero-length range", {start, MediaTime::zero()}, 9},
        {"negative range", {start, MediaTime::make(-1, kRate)}, 9},
        {"invalid duration", {start, MediaTime::invalid()}, 9},
    };
    for (const Row& row : rows) {
        const SyntheticAsset asset(MediaTime::make(2, 1), {flatTrack(50)});
        const auto window =
            decodeWindowFrames(asset, firstTrack(asset), row.range, row.maxFrames, 320, 180);
        ASSERT_TRUE(window) << row.name;
        EXPECT_TRUE(window->empty()) << row.name;
        EXPECT_EQ(asset.statistics().readersMade, 0) << row.name;
    }
}

TEST(WindowDecoding, CollectsUpToMaxFramesInPresentationOrder)
{
    SyntheticTrack track = flatTrack(30, [](std::int64_t i) { return static_cast<int>(3 * i); });
    track.samples[7].picture.reset();
    const SyntheticAsset asset(MediaTime::make(30, kRate), {track});

    // Frames 5..24 lie in the range; frame 7 has no image. Reading stops at the ninth plane.
    const auto window = decodeWindowFrames(
        asset,
        firstTrack(asset),
        MediaTimeRange::fromStartEnd(MediaTime::make(5, kRate), MediaTime::make(25, kRate)),
        9,
        320,
        180);
    ASSERT_TRUE(window);
    std::vector<int> lumas;
    for (const LumaPlane& plane : *window) {
        EXPECT_EQ(plane.width(), 320);
        EXPECT_EQ(plane.height(), 180);
        lumas.push_back(plane.at(319, 179));
    }
    EXPECT_EQ(lumas, (std::vector<int>{15, 18, 24, 27, 30, 33, 36, 39, 42}));
    EXPECT_EQ(asset.statistics().framesDelivered, 10);

    // A range holding fewer frames than asked gives what there is.
    const auto shortWindow = decodeWindowFrames(
        asset, firstTrack(asset), {MediaTime::make(28, kRate), MediaTime::make(1, 1)}, 9, 32, 18);
    ASSERT_TRUE(shortWindow);
    EXPECT_EQ(shortWindow->size(), 2U);
}

TEST(WindowDecoding, ErrorsPreferTheReadersOwnAndStopRequestsCancel)
{
    const core::Error own{"FFmpeg", -1094995529, "Invalid data found when processing input"};
    struct Row
    {
        const char* name;
        ReaderFaults faults;
        core::Error expected;
    };
    ReaderFaults unmakeable;
    unmakeable.makeError = own;
    const Row rows[] = {
        {"reader cannot be made", unmakeable, own},
        {"refuses to start, own error", refusesStart(own), own},
        {"refuses to start silently", refusesStart({}), scan_error::decodeStartFailed()},
        {"fails part-way, own error", failsAfter(2, own), own},
        {"fails part-way silently", failsAfter(2, {}), scan_error::decodeFailed()},
    };
    const MediaTimeRange window{MediaTime::zero(), MediaTime::make(1, 1)};
    for (const Row& row : rows) {
        SyntheticTrack track = flatTrack(50);
        track.faults = row.faults;
        const SyntheticAsset asset(MediaTime::make(2, 1), {track});
        const auto planes = decodeWindowFrames(asset, firstTrack(asset), window, 9, 320, 180);
        ASSERT_FALSE(planes) << row.name;
        EXPECT_EQ(planes.error(), row.expected) << row.name;
    }

    // Reading stops once the planes are collected, before a later failure could be met.
    SyntheticTrack failsLate = flatTrack(50);
    failsLate.faults.failAfterFrames = 9;
    const SyntheticAsset asset(MediaTime::make(2, 1), {failsLate});
    const auto planes = decodeWindowFrames(asset, firstTrack(asset), window, 9, 320, 180);
    ASSERT_TRUE(planes);
    EXPECT_EQ(planes->size(), 9U);

    std::stop_source stop;
    stop.request_stop();
    const auto stopped =
        decodeWindowFrames(asset, firstTrack(asset), window, 9, 320, 180, stop.get_token());
    ASSERT_FALSE(stopped);
    EXPECT_TRUE(scan_error::isCancellation(stopped.error()));
}

}  // namespace
}  // namespace kestrin::scan
