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

namespace fs = std::filesystem;
using core::MediaTime;
using testing::firstVideoTrack;
using testing::openClip;

// Containers with an index (MOV, MP4) and without (MKV, AVI, MPEG-PS), codecs with and without
// reordering: the cursor's sync flags are the keyframes ffprobe finds; stepping in presentation
// order from the first sample in decode order gives the decode-order times sorted; steps stop at
// the ends of the track and report how far they moved.
TEST(FFmpegSampleCursor, WalksTheTrackAsFfprobeSeesIt)
{
    for (const std::string& clip : testing::clips(
             "h264-cuts.mp4 h264-gop12.mp4 h264-bframes.mp4 h264-bframes.mkv prores.mov mjpeg.mkv "
             "mjpeg.avi vp8-5994.webm mpeg2-offset.mpg")) {
        SCOPED_TRACE(clip);
        const auto track = firstVideoTrack(openClip(clip));
        auto [isSync, decodeTimes] = testing::walkInDecodeOrder(track);
        EXPECT_EQ(isSync, testing::probeKeyframeFlags(clip));
        const bool reorders = clip.starts_with("h264") || clip.starts_with("mpeg2");
        EXPECT_NE(std::is_sorted(decodeTimes.begin(), decodeTimes.end()), reorders);
        std::sort(decodeTimes.begin(), decodeTimes.end());

        auto cursor = track->makeSampleCursorAtFirstSampleInDecodeOrder();
        ASSERT_TRUE(cursor);
        std::vector<MediaTime> presented{cursor->presentationTimeStamp()};
        while (cursor->stepInPresentationOrder(1) == 1) {
            presented.push_back(cursor->presentationTimeStamp());
        }
        EXPECT_EQ(presented, decodeTimes);
        const auto count = std::ssize(presented);
        EXPECT_EQ(cursor->stepInPresentationOrder(-1000000), -(count - 1));
        EXPECT_EQ(cursor->presentationTimeStamp(), presented.front());
        // Back at the first sample in decode order too.
        EXPECT_EQ(cursor->stepInDecodeOrder(-3), 0);
        EXPECT_EQ(cursor->stepInDecodeOrder(10), 10);
        EXPECT_EQ(cursor->stepInDecodeOrder(-4), -4);
        EXPECT_EQ(cursor->stepInDecodeOrder(1000000), count - 1 - 6);
        EXPECT_EQ(cursor->stepInDecodeOrder(-1000000), -(count - 1));
    }
}

TEST(FFmpegSampleCursor, OutlivesItsAssetAndHonoursStopRequests)
{
    const auto cursor =
        firstVideoTrack(openClip("mjpeg.mkv"))->makeSampleCursorAtFirstSampleInDecodeOrder();
    ASSERT_TRUE(cursor);
    EXPECT_EQ(cursor->stepInDecodeOrder(5), 5);
    EXPECT_EQ(cursor->presentationTimeStamp(), MediaTime::make(5, 25));

    // A stopped cursor cannot even open the file: none is made.
    std::stop_source stop;
    stop.request_stop();
    EXPECT_FALSE(firstVideoTrack(openClip("h264-bframes.mkv"))
                     ->makeSampleCursorAtFirstSampleInDecodeOrder(stop.get_token()));
}

// An intra-only MOV's cursor comes from the index read at opening: it needs the file no more,
// so walking it reads no sample data. A Matroska file has no such index and is demuxed.
TEST(FFmpegSampleCursor, IndexedIntraOnlyTracksNeedNoFileAccess)
{
    for (const std::string& clip : testing::clips("prores.mov mjpeg.mov prores.mkv")) {
        SCOPED_TRACE(clip);
        const auto copy =
            fs::temp_directory_path() / ("kestrin-" + std::to_string(::getpid()) + clip);
        fs::copy_file(testing::clipPath(clip), copy, fs::copy_options::overwrite_existing);
        const auto asset = FFmpegAssetOpener().openAsset(copy);
        fs::remove(copy);
        ASSERT_TRUE(asset);
        auto cursor = firstVideoTrack(*asset)->makeSampleCursorAtFirstSampleInDecodeOrder();
        EXPECT_EQ(cursor != nullptr, clip.ends_with(".mov"));
        if (cursor) {
            const auto last = std::ssize(testing::probeKeyframeFlags(clip)) - 1;
            EXPECT_EQ(cursor->stepInDecodeOrder(1000), last);
            EXPECT_EQ(cursor->presentationTimeStamp(), MediaTime::make(last, 25));
        }
    }
}

}  // namespace
}  // namespace kestrin::media_ffmpeg
