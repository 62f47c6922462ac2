#include <kestrin/media_testing/synthetic_asset.hpp>

#include <gtest/gtest.h>

#include <stop_token>
#include <vector>

namespace kestrin::media_testing {
namespace {

using core::MediaTime;

// I P B B P as decoded; presented I B B P P.
SyntheticTrack reorderedTrack()
{
    SyntheticTrack track;
    const int presented[] = {0, 3, 1, 2, 4};
    for (int i = 0; i < 5; ++i) {
        track.samples.push_back({MediaTime::make(presented[i], 25),
                                 i == 0,
                                 flatPicture(static_cast<std::uint8_t>(presented[i] * 10))});
    }
    return track;
}

TEST(SyntheticCursor, StepsInDecodeAndPresentationOrder)
{
    const SyntheticAsset asset(MediaTime::make(5, 25), {reorderedTrack()});
    const auto cursor = (*asset.tracks())[0]->makeSampleCursorAtFirstSampleInDecodeOrder();
    ASSERT_NE(cursor, nullptr);
    std::vector<std::int64_t> presentation{cursor->presentationTimeStamp().value};
    while (cursor->stepInPresentationOrder(1) == 1) {
        presentation.push_back(cursor->presentationTimeStamp().value);
    }
    EXPECT_EQ(presentation, (std::vector<std::int64_t>{0, 1, 2, 3, 4}));
    EXPECT_EQ(cursor->stepInDecodeOrder(-10), -4);  // from decode position 4 back to 0
    EXPECT_TRUE(cursor->currentSampleIsFullSync());
    EXPECT_EQ(cursor->stepInDecodeOrder(1), 1);
    EXPECT_EQ(cursor->presentationTimeStamp().value, 3);
}

TEST(SyntheticReader, DeliversOverlappingFramesInPresentationOrder)
{
    const SyntheticAsset asset(MediaTime::make(5, 25), {reorderedTrack()});
    media::FrameReaderSettings settings{4, 2, media::LumaRange::video, std::nullopt};
    // [1.5, 3) frames: overlaps frames 1 and 2 only.
    settings.timeRange =
        core::MediaTimeRange::fromStartEnd(MediaTime::make(3, 50), MediaTime::make(3, 25));
    auto reader = asset.makeFrameReader(*(*asset.tracks())[0], settings, {});
    ASSERT_TRUE(reader);
    ASSERT_TRUE((*reader)->startReading());
    std::vector<int> lumas;
    while (const auto frame = (*reader)->nextFrame()) {
        ASSERT_EQ(frame->width, 4);
        lumas.push_back(frame->data[0]);
    }
    // Video range: 16 + v * 219 / 255.
    EXPECT_EQ(lumas, (std::vector<int>{25, 33}));
    EXPECT_EQ((*reader)->status(), media::ReaderStatus::completed);
}

TEST(SyntheticReader, InjectedFaultsAndStopRequests)
{
    SyntheticTrack failing = makeVideoTrack(
        25, 10, [](std::int64_t) { return flatPicture(1); }, [](std::int64_t) { return true; });
    failing.faults.failAfterFrames = 3;
    failing.faults.readError = core::Error{"Test", -7, "broken"};
    const SyntheticAsset asset(MediaTime::make(10, 25), {failing});
    auto reader = asset.makeFrameReader(*(*asset.tracks())[0], {}, {});
    ASSERT_TRUE((*reader)->startReading());
    int frames = 0;
    while ((*reader)->nextFrame()) {
        ++frames;
    }
    EXPECT_EQ(frames, 3);
    EXPECT_EQ((*reader)->status(), media::ReaderStatus::failed);
    EXPECT_EQ((*reader)->error()->code, -7);

    std::stop_source stop;
    auto stopped = asset.makeFrameReader(*(*asset.tracks())[0], {}, stop.get_token());
    ASSERT_TRUE((*stopped)->startReading());
    ASSERT_TRUE((*stopped)->nextFrame());
    stop.request_stop();
    EXPECT_FALSE((*stopped)->nextFrame());
    EXPECT_EQ((*stopped)->status(), media::ReaderStatus::cancelled);
    EXPECT_EQ(asset.statistics().readersMade, 2);
}

}  // namespace
}  // namespace kestrin::media_testing
