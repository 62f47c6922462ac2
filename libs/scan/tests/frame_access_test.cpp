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
#include <tuple>
#include <utility>
#include <vector>

namespace kestrin::scan {
namespace {

using core::MediaTime;
using core::MediaTimeRange;
using media_testing::ReaderFaults;
using media_testing::SyntheticAsset;
using media_testing::SyntheticTrack;

constexpr int kRate = 25;

// A 25 fps track of `count` flat frames, frame i at luma(i) (by default i % 200).
SyntheticTrack flatTrack(std::int64_t count, const std::function<int(std::int64_t)>& luma = {})
{
    const auto picture = [&luma](std::int64_t i) {
        return media_testing::flatPicture(static_cast<std::uint8_t>(luma ? luma(i) : i % 200));
    };
    return media_testing::makeVideoTrack(kRate, count, picture, [](std::int64_t) { return true; });
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

struct PassRun
{
    core::Status status;
    SignaturePassState state;
    std::vector<double> reports;
    double lastProgress = 0.0;
};

// A signature pass at weight 0.3 over the first track of `asset`, with a reader from
// makeTrackReader (whose error, if any, becomes the status).
PassRun runPass(const SyntheticAsset& asset,
                std::int64_t stride,
                MediaTime duration,
                double startProgress = 0.0)
{
    PassRun run{{}, SignaturePassState(stride), {}, startProgress};
    auto reader = makeTrackReader(asset, firstTrack(asset));
    const auto report = [&run](double p) {
        run.reports.push_back(p);
    };
    run.status =
        !reader ? core::Status(reader.error())
                : scoreSignatures(**reader, duration, 0.3, report, run.lastProgress, run.state);
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
        EXPECT_EQ(run.state.scoreOfFrame(2 * stride), inOrder[1]);
        EXPECT_EQ(run.state.scoreOfFrame(stride + 1), std::nullopt);
    }

    // Samples 0..9 at luma 20 x sample; sample 4 has no image, so the frames with an image are
    // samples 0 1 2 3 5 6 7 8 9, and with stride 4 frame 4 is sample 5, frame 8 sample 9.
    SyntheticTrack track = flatTrack(10, [](std::int64_t i) { return static_cast<int>(20 * i); });
    track.samples[4].picture.reset();
    const PassRun run =
        runPass(SyntheticAsset(MediaTime::make(10, kRate), {track}), 4, MediaTime::make(10, kRate));
    ASSERT_TRUE(run.status.ok());
    EXPECT_EQ(run.state.decodedCount, 9);
    EXPECT_EQ(run.state.scoresByFrame,
              (std::vector<FrameScore>{{4, flatScore(100, 0)}, {8, flatScore(180, 100)}}));
}

TEST(SignaturePass, ReportsProgressEveryThirtyTwoFramesNeverDecreasing)
{
    // Duration, starting progress, the reports at frames 0, 32, 64 and 96 of 100 (25 fps).
    using Row = std::tuple<const char*, MediaTime, double, std::vector<double>>;
    const Row rows[] = {
        // Frame 32 is at 1.28 s of 4 s: 0.32 x 0.3.
        {"4 s", MediaTime::make(4, 1), 0.0, {0.0, 0.096, 0.192, 0.288}},
        {"earlier progress holds", MediaTime::make(4, 1), 0.15, {0.15, 0.15, 0.192, 0.288}},
        {"shorter than the frames", MediaTime::make(1, 1), 0.0, {0.0, 0.3, 0.3, 0.3}},
        {"zero duration", MediaTime::zero(), 0.0, {0.0, 0.3, 0.3, 0.3}},
        {"invalid duration", MediaTime::invalid(), 0.0, {0.0, 0.3, 0.3, 0.3}},
    };
    const SyntheticAsset asset(MediaTime::make(4, 1), {flatTrack(100)});
    for (const auto& [name, duration, startProgress, reports] : rows) {
        SCOPED_TRACE(name);
        const PassRun run = runPass(asset, 4, duration, startProgress);
        ASSERT_TRUE(run.status.ok());
        ASSERT_EQ(run.reports.size(), reports.size());
        for (std::size_t i = 0; i < reports.size(); ++i) {
            EXPECT_NEAR(run.reports[i], reports[i], 1e-12) << "report " << i;
            EXPECT_LE(run.reports[i], 0.3);
            EXPECT_GE(run.reports[i], i > 0 ? run.reports[i - 1] : startProgress);
        }
        EXPECT_EQ(run.lastProgress, run.reports.back());
    }
}

TEST(FrameAccess, ErrorsPreferTheReadersOwn)
{
    const core::Error own{"FFmpeg", -5, "Input/output error"};
    const MediaTimeRange second{MediaTime::zero(), MediaTime::make(1, 1)};
    // Faults (make error, refuse start, start error, fail after frames, read error), then the
    // error of the signature pass and of decodeWindowFrames.
    const std::tuple<const char*, ReaderFaults, core::Error, core::Error> rows[] = {
        {"cannot be made", {own, false, {}, {}, {}}, own, own},
        {"refuses to start, own error", {{}, true, own, {}, {}}, own, own},
        {"refuses to start silently",
         {{}, true, {}, {}, {}},
         scan_error::failedToStartReading(),
         scan_error::decodeStartFailed()},
        {"fails part-way, own error", {{}, false, {}, 2, own}, own, own},
        {"fails part-way silently",
         {{}, false, {}, 2, {}},
         scan_error::readerFailedDuringIteration(),
         scan_error::decodeFailed()},
    };
    for (const auto& [name, faults, passError, windowError] : rows) {
        SCOPED_TRACE(name);
        SyntheticTrack track = flatTrack(100);
        track.faults = faults;
        const SyntheticAsset asset(MediaTime::make(4, 1), {track});
        const PassRun run = runPass(asset, 4, MediaTime::make(4, 1));
        ASSERT_FALSE(run.status.ok());
        EXPECT_EQ(run.status.error(), passError);
        const auto planes = decodeWindowFrames(asset, firstTrack(asset), second, 9, 320, 180);
        ASSERT_FALSE(planes);
        EXPECT_EQ(planes.error(), windowError);
    }

    // A reader that is already reading is refused before anything is read.
    const SyntheticAsset asset(MediaTime::make(4, 1), {flatTrack(100)});
    auto reader = makeTrackReader(asset, firstTrack(asset));
    ASSERT_TRUE(reader && (*reader)->startReading());
    SignaturePassState state(4);
    double lastProgress = 0.0;
    const core::Status status =
        scoreSignatures(**reader, MediaTime::make(4, 1), 0.3, {}, lastProgress, state);
    ASSERT_FALSE(status.ok());
    EXPECT_EQ(status.error(), scan_error::readerAlreadyReading());
}

TEST(FrameAccess, StopDuringTheSignaturePassCancelsItAtTheNextFrame)
{
    // The stop comes with the report at frame 32. A reader made with the token stops by itself;
    // one made without it runs on, and the pass notices at the next frame it takes.
    const SyntheticAsset asset(MediaTime::make(4, 1), {flatTrack(100)});
    const MediaTime fourSeconds = MediaTime::make(4, 1);
    for (const bool readerHasToken : {true, false}) {
        SCOPED_TRACE(readerHasToken ? "a reader with the token" : "a reader without it");
        std::stop_source stop;
        const std::stop_token token = stop.get_token();
        SignaturePassState state(4);
        double lastProgress = 0.0;
        auto reader =
            makeTrackReader(asset, firstTrack(asset), readerHasToken ? token : std::stop_token{});
        ASSERT_TRUE(reader);
        int reports = 0;
        const auto stopAtSecondReport = [&](double) {
            if (++reports == 2) {
                stop.request_stop();
            }
        };
        const std::int64_t deliveredBefore = asset.statistics().framesDelivered;
        const core::Status status = scoreSignatures(
            **reader, fourSeconds, 0.3, stopAtSecondReport, lastProgress, state, token);
        ASSERT_FALSE(status.ok());
        EXPECT_TRUE(scan_error::isCancellation(status.error()));
        EXPECT_EQ(reports, 2);
        EXPECT_LE(asset.statistics().framesDelivered - deliveredBefore, 34);
        EXPECT_EQ(state.decodedCount, 33);
    }
}

TEST(FrameAccess, StoppedWindowDecodeCancels)
{
    const SyntheticAsset asset(MediaTime::make(4, 1), {flatTrack(100)});
    std::stop_source stop;
    stop.request_stop();
    const MediaTimeRange second{MediaTime::zero(), MediaTime::make(1, 1)};
    const auto stopped =
        decodeWindowFrames(asset, firstTrack(asset), second, 9, 320, 180, stop.get_token());
    ASSERT_FALSE(stopped);
    EXPECT_TRUE(scan_error::isCancellation(stopped.error()));
}

// An asset that creates no reader and reports no error: the track output cannot be attached.
class AssetWithoutOutput : public media::Asset
{
public:
    core::Expected<MediaTime> duration() const override { return MediaTime::make(1, 1); }
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

TEST(ReaderSetUp, SignatureReadsFullRangeRefinementVideoRangeOrNothingWithoutOutput)
{
    const SyntheticAsset asset(MediaTime::make(10, kRate),
                               {flatTrack(10, [](std::int64_t) { return 255; })});
    // [2, 5) frame durations: frames 2, 3 and 4, white at 235 in video range.
    const MediaTimeRange range =
        MediaTimeRange::fromStartEnd(MediaTime::make(2, kRate), MediaTime::make(5, kRate));
    auto signature = makeTrackReader(asset, firstTrack(asset));
    auto refinement = makeRefinementReader(asset, firstTrack(asset), range, 96, 54);
    ASSERT_TRUE(signature && refinement);
    for (auto [reader, samples] : {std::pair{signature->get(), std::vector<int>(10, 255)},
                                   std::pair{refinement->get(), std::vector<int>(3, 235)}}) {
        std::vector<int> firstSamples;
        ASSERT_TRUE(reader->startReading());
        while (const auto frame = reader->nextFrame()) {
            EXPECT_EQ(frame->width * 1000 + frame->height, 96054) << "96 x 54";
            firstSamples.push_back(frame->data[0]);
        }
        EXPECT_EQ(firstSamples, samples);
    }

    const AssetWithoutOutput withoutOutput;
    const auto signatureReader = makeTrackReader(withoutOutput, firstTrack(asset));
    ASSERT_FALSE(signatureReader);
    EXPECT_EQ(signatureReader.error(), scan_error::cannotAddVideoOutput());
    const auto refinementReader =
        makeRefinementReader(withoutOutput, firstTrack(asset), range, 96, 54);
    ASSERT_TRUE(refinementReader);
    EXPECT_EQ(*refinementReader, nullptr);
    const auto window = decodeWindowFrames(withoutOutput, firstTrack(asset), range, 9, 320, 180);
    ASSERT_TRUE(window);
    EXPECT_TRUE(window->empty());
}

TEST(WindowDecoding, MakesNoReaderForNothingAndCollectsUpToMaxFrames)
{
    const MediaTime start = MediaTime::make(5, kRate);
    // Range, maxFrames, width, height.
    const std::tuple<const char*, MediaTimeRange, int, int, int> rows[] = {
        {"no frames wanted", {start, MediaTime::make(1, 1)}, 0, 320, 180},
        {"no width", {start, MediaTime::make(1, 1)}, 9, 0, 180},
        {"no height", {start, MediaTime::make(1, 1)}, 9, 320, 0},
        {"zero-length range", {start, MediaTime::zero()}, 9, 320, 180},
        {"negative range", {start, MediaTime::make(-1, kRate)}, 9, 320, 180},
        {"invalid duration", {start, MediaTime::invalid()}, 9, 320, 180},
    };
    for (const auto& [name, range, maxFrames, width, height] : rows) {
        const SyntheticAsset asset(MediaTime::make(2, 1), {flatTrack(50)});
        const auto window =
            decodeWindowFrames(asset, firstTrack(asset), range, maxFrames, width, height);
        ASSERT_TRUE(window) << name;
        EXPECT_TRUE(window->empty()) << name;
        EXPECT_EQ(asset.statistics().readersMade, 0) << name;
    }

    SyntheticTrack track = flatTrack(30, [](std::int64_t i) { return static_cast<int>(3 * i); });
    track.samples[7].picture.reset();
    track.faults.failAfterFrames = 10;  // never met: reading stops at the ninth plane
    const SyntheticAsset asset(MediaTime::make(30, kRate), {track});
    // Frames 5..24 lie in the range; frame 7 has no image.
    const MediaTimeRange range =
        MediaTimeRange::fromStartEnd(MediaTime::make(5, kRate), MediaTime::make(25, kRate));
    const auto window = decodeWindowFrames(asset, firstTrack(asset), range, 9, 320, 180);
    ASSERT_TRUE(window);
    std::vector<int> lumas;
    for (const LumaPlane& plane : *window) {
        EXPECT_EQ(plane.width() * 1000 + plane.height(), 320180) << "320 x 180";
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

}  // namespace
}  // namespace kestrin::scan
