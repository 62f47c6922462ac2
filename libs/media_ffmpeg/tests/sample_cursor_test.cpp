#include "clip_test_support.hpp"

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include <unistd.h>

namespace kestrin::media_ffmpeg {
namespace {

using testing::firstVideoTrack;
using testing::openClip;

struct WalkedSample
{
    bool isSync = false;
    core::MediaTime time;
};

std::vector<WalkedSample> walkInDecodeOrder(const media::TrackPointer& track)
{
    std::vector<WalkedSample> samples;
    auto cursor = track->makeSampleCursorAtFirstSampleInDecodeOrder();
    if (!cursor) {
        ADD_FAILURE() << "no cursor";
        return samples;
    }
    do {
        samples.push_back({cursor->currentSampleIsFullSync(), cursor->presentationTimeStamp()});
    } while (cursor->stepInDecodeOrder(1) == 1);
    return samples;
}

// Containers with an index (MOV, MP4) and without (MKV, AVI, MPEG-PS), codecs with and without
// reordering: the cursor's sync flags are the keyframes ffprobe finds.
TEST(FFmpegSampleCursor, SyncSamplesMatchFfprobeKeyframes)
{
    for (const char* clip : {"h264-cuts.mp4",
                             "h264-gop12.mp4",
                             "h264-bframes.mp4",
                             "h264-bframes.mkv",
                             "prores.mov",
                             "mjpeg.mkv",
                             "mjpeg.avi",
                             "vp8-5994.webm",
                             "mpeg2-offset.mpg"}) {
        SCOPED_TRACE(clip);
        const auto samples = walkInDecodeOrder(firstVideoTrack(openClip(clip)));
        std::vector<bool> flags;
        for (const WalkedSample& sample : samples) {
            flags.push_back(sample.isSync);
        }
        EXPECT_EQ(flags, testing::probeKeyframeFlags(clip));
    }
}

TEST(FFmpegSampleCursor, KeyframesSitAtTheCutsOfTheCutsClip)
{
    const auto samples = walkInDecodeOrder(firstVideoTrack(openClip("h264-cuts.mp4")));
    std::vector<std::int64_t> syncIndices;
    for (std::size_t i = 0; i < samples.size(); ++i) {
        if (samples[i].isSync) {
            syncIndices.push_back(static_cast<std::int64_t>(i));
        }
    }
    const std::vector<std::int64_t> expected{0, 30, 71, 94, 131, 160, 204, 235, 262, 298};
    EXPECT_EQ(syncIndices, expected);
}

TEST(FFmpegSampleCursor, PresentationOrderAscendsWhereFramesReorder)
{
    for (const char* clip : {"h264-bframes.mp4", "h264-bframes.mkv", "mpeg2-offset.mpg"}) {
        SCOPED_TRACE(clip);
        const auto track = firstVideoTrack(openClip(clip));
        const auto decoded = walkInDecodeOrder(track);
        auto cursor = track->makeSampleCursorAtFirstSampleInDecodeOrder();
        ASSERT_TRUE(cursor);
        // The first sample in decode order is the first presented here.
        std::vector<core::MediaTime> presented{cursor->presentationTimeStamp()};
        while (cursor->stepInPresentationOrder(1) == 1) {
            presented.push_back(cursor->presentationTimeStamp());
        }
        EXPECT_EQ(presented.front(), core::MediaTime::zero());
        EXPECT_TRUE(std::is_sorted(presented.begin(), presented.end()));
        EXPECT_EQ(std::adjacent_find(presented.begin(), presented.end()), presented.end());
        EXPECT_EQ(presented.size(), decoded.size());

        // In decode order the same times come out of order.
        std::vector<core::MediaTime> decodeTimes;
        for (const WalkedSample& sample : decoded) {
            decodeTimes.push_back(sample.time);
        }
        EXPECT_FALSE(std::is_sorted(decodeTimes.begin(), decodeTimes.end()));
        std::sort(decodeTimes.begin(), decodeTimes.end());
        EXPECT_EQ(decodeTimes, presented);

        // And back again.
        std::int64_t back = 0;
        while (cursor->stepInPresentationOrder(-1) == -1) {
            ++back;
            EXPECT_EQ(cursor->presentationTimeStamp(),
                      presented[presented.size() - 1 - static_cast<std::size_t>(back)]);
        }
        EXPECT_EQ(back + 1, static_cast<std::int64_t>(presented.size()));
    }
}

TEST(FFmpegSampleCursor, StepsReportHowFarTheyMoved)
{
    for (const char* clip : {"prores.mov", "h264-bframes.mkv"}) {
        SCOPED_TRACE(clip);
        const auto track = firstVideoTrack(openClip(clip));
        const auto count = static_cast<std::int64_t>(walkInDecodeOrder(track).size());
        auto cursor = track->makeSampleCursorAtFirstSampleInDecodeOrder();
        ASSERT_TRUE(cursor);
        EXPECT_EQ(cursor->stepInDecodeOrder(-3), 0);
        EXPECT_EQ(cursor->stepInDecodeOrder(10), 10);
        EXPECT_EQ(cursor->stepInDecodeOrder(-4), -4);
        EXPECT_EQ(cursor->stepInDecodeOrder(1000000), count - 1 - 6);
        EXPECT_EQ(cursor->stepInDecodeOrder(1), 0);
        EXPECT_EQ(cursor->stepInDecodeOrder(-1000000), -(count - 1));
    }
}

TEST(FFmpegSampleCursor, CursorOutlivesItsAsset)
{
    std::unique_ptr<media::SampleCursor> cursor;
    {
        const auto asset = openClip("mjpeg.mkv");
        cursor = firstVideoTrack(asset)->makeSampleCursorAtFirstSampleInDecodeOrder();
    }
    ASSERT_TRUE(cursor);
    EXPECT_EQ(cursor->stepInDecodeOrder(5), 5);
    EXPECT_EQ(cursor->presentationTimeStamp(), core::MediaTime::make(5, 25));
}

TEST(FFmpegSampleCursor, StopRequestEndsTheTrackThere)
{
    std::stop_source stop;
    const auto track = firstVideoTrack(openClip("h264-bframes.mkv"));
    stop.request_stop();
    // The file cannot even be opened: no cursor.
    EXPECT_FALSE(track->makeSampleCursorAtFirstSampleInDecodeOrder(stop.get_token()));
}

TEST(FFmpegSampleCursor, AudioTracksHaveCursorsToo)
{
    const auto audio = *openClip("audio.m4a")->tracksWithMediaType(media::MediaType::audio);
    ASSERT_EQ(audio.size(), 1U);
    auto cursor = audio.front()->makeSampleCursorAtFirstSampleInDecodeOrder();
    ASSERT_TRUE(cursor);
    EXPECT_GT(cursor->stepInDecodeOrder(1000000), 10);
}

}  // namespace
}  // namespace kestrin::media_ffmpeg

namespace kestrin::media_ffmpeg {
namespace {

// An intra-only MOV's cursor comes from the index read at opening: it needs the file no more,
// so walking it reads no sample data. A Matroska file has no such index and is demuxed.
TEST(FFmpegSampleCursor, IndexedIntraOnlyTracksNeedNoFileAccess)
{
    const std::vector<std::pair<const char*, bool>> rows{
        {"prores.mov", true}, {"mjpeg.mov", true}, {"prores.mkv", false}};
    for (const auto& [clip, isIndexed] : rows) {
        SCOPED_TRACE(clip);
        const auto copy = std::filesystem::temp_directory_path()
                          / ("kestrin-index-" + std::to_string(::getpid()) + "-" + clip);
        std::filesystem::copy_file(
            testing::clipPath(clip), copy, std::filesystem::copy_options::overwrite_existing);
        const auto asset = FFmpegAssetOpener().openAsset(copy);
        std::filesystem::remove(copy);
        ASSERT_TRUE(asset);
        auto cursor = firstVideoTrack(*asset)->makeSampleCursorAtFirstSampleInDecodeOrder();
        EXPECT_EQ(cursor != nullptr, isIndexed);
        if (cursor) {
            EXPECT_EQ(cursor->stepInDecodeOrder(1000), 97);
            EXPECT_TRUE(cursor->currentSampleIsFullSync());
            EXPECT_EQ(cursor->presentationTimeStamp(), core::MediaTime::make(97, 25));
        }
    }
}

}  // namespace
}  // namespace kestrin::media_ffmpeg
