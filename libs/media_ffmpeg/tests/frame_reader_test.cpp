#include "clip_test_support.hpp"

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

namespace kestrin::media_ffmpeg {
namespace {

using media::FrameReaderSettings;
using media::LumaRange;
using media::ReaderStatus;
using testing::firstVideoTrack;
using testing::frameIndexOf;
using testing::openClip;
using testing::readFrames;

// Every time-to-frame conversion lands on the frame decoded there, also where the container's
// clock rounds the stamps (1 ms at 59.94, microseconds at 29.97) or starts late (MPEG-PS at 10 s);
// and the cursor reports the very same times.
TEST(FFmpegFrameReader, FrameIndexFromTimeIsTheDecodedPosition)
{
    for (const char* clip : {"vp8-5994.webm",
                             "h264-2997-us.mp4",
                             "mpeg2-offset.mpg",
                             "h264-bframes.mkv",
                             "timecode-df.mov"}) {
        SCOPED_TRACE(clip);
        const auto asset = openClip(clip);
        const auto track = firstVideoTrack(asset);
        ASSERT_TRUE(track);
        const core::MediaTime frameDuration = *track->minFrameDuration();
        const auto read = readFrames(asset, track, FrameReaderSettings{});
        EXPECT_EQ(read.status, ReaderStatus::completed);
        ASSERT_GE(read.frames.size(), 40U);
        EXPECT_EQ(read.frames.front().time, core::MediaTime::zero());
        std::vector<core::MediaTime> readTimes;
        for (std::size_t i = 0; i < read.frames.size(); ++i) {
            ASSERT_EQ(frameIndexOf(read.frames[i].time, frameDuration),
                      static_cast<std::int64_t>(i))
                << "time " << read.frames[i].time.value << "/" << read.frames[i].time.timescale;
            readTimes.push_back(read.frames[i].time);
        }

        std::vector<core::MediaTime> cursorTimes;
        auto cursor = track->makeSampleCursorAtFirstSampleInDecodeOrder();
        ASSERT_TRUE(cursor);
        do {
            cursorTimes.push_back(cursor->presentationTimeStamp());
        } while (cursor->stepInDecodeOrder(1) == 1);
        std::sort(cursorTimes.begin(), cursorTimes.end());
        EXPECT_EQ(cursorTimes, readTimes);
    }
}

int maxDifference(const testing::CopiedFrame& a, const testing::CopiedFrame& b)
{
    int largest = 0;
    for (std::size_t i = 0; i < a.luma.size(); ++i) {
        largest = std::max(largest, std::abs(int{a.luma[i]} - int{b.luma[i]}));
    }
    return largest;
}

TEST(FFmpegFrameReader, FullAndVideoRangeSourcesGiveTheSameLuma)
{
    const auto full = openClip("range-full.mp4");
    FrameReaderSettings settings;
    settings.width = 320;  // the clip's own size: full range is delivered without a copy
    settings.height = 180;
    const auto reference = readFrames(full, firstVideoTrack(full), settings);
    ASSERT_EQ(reference.frames.size(), 24U);
    for (const char* clip : {"range-video.mp4", "range-video-10bit.mkv"}) {
        SCOPED_TRACE(clip);
        const auto asset = openClip(clip);
        const auto other = readFrames(asset, firstVideoTrack(asset), settings);
        ASSERT_EQ(other.frames.size(), reference.frames.size());
        for (std::size_t i = 0; i < other.frames.size(); ++i) {
            ASSERT_EQ(other.frames[i].luma.size(), 320U * 180U);
            EXPECT_LE(maxDifference(other.frames[i], reference.frames[i]), 1) << "frame " << i;
        }
    }
}

TEST(FFmpegFrameReader, VideoRangeStaysWithinItsLimits)
{
    for (const char* clip : {"range-full.mp4", "range-video.mp4", "prores.mov", "mjpeg.avi"}) {
        SCOPED_TRACE(clip);
        const auto asset = openClip(clip);
        FrameReaderSettings settings;
        settings.range = LumaRange::video;
        const auto read = readFrames(asset, firstVideoTrack(asset), settings);
        ASSERT_FALSE(read.frames.empty());
        std::uint8_t lowest = 255;
        std::uint8_t highest = 0;
        for (const auto& frame : read.frames) {
            EXPECT_EQ(frame.width, 96);
            EXPECT_EQ(frame.height, 54);
            const auto [low, high] = std::minmax_element(frame.luma.begin(), frame.luma.end());
            lowest = std::min(lowest, *low);
            highest = std::max(highest, *high);
        }
        EXPECT_GE(lowest, 16);
        EXPECT_LE(highest, 235);
        // The clips hold black and white: the range is used, not squeezed further.
        EXPECT_LE(lowest, 20);
        EXPECT_GE(highest, 225);
    }
}

media::FrameReaderSettings rangeOfFrames(std::int64_t first, std::int64_t end, int rate)
{
    FrameReaderSettings settings;
    settings.timeRange = core::MediaTimeRange::fromStartEnd(core::MediaTime::make(first, rate),
                                                            core::MediaTime::make(end, rate));
    return settings;
}

struct RangeRow
{
    std::int64_t firstFrame;  // range [firstFrame, endFrame) in frames at 25 fps
    std::int64_t endFrame;
};

// A range delivers exactly the frames it overlaps, decoded as in a whole-track read.
TEST(FFmpegFrameReader, TimeRangeDeliversTheOverlappingFrames)
{
    for (const char* clip :
         {"h264-bframes.mp4", "h264-bframes.mkv", "h264-cuts.mp4", "prores.mov"}) {
        SCOPED_TRACE(clip);
        const auto asset = openClip(clip);
        const auto track = firstVideoTrack(asset);
        const auto whole = readFrames(asset, track, FrameReaderSettings{});
        const auto count = static_cast<std::int64_t>(whole.frames.size());
        ASSERT_GT(count, 80);
        for (const RangeRow& row : std::vector<RangeRow>{
                 {0, 5}, {50, 63}, {31, 40}, {count - 3, count}, {count - 2, count + 50}}) {
            SCOPED_TRACE(std::to_string(row.firstFrame) + ".." + std::to_string(row.endFrame));
            const auto part =
                readFrames(asset, track, rangeOfFrames(row.firstFrame, row.endFrame, 25));
            EXPECT_EQ(part.status, ReaderStatus::completed);
            const std::int64_t expected = std::min(row.endFrame, count) - row.firstFrame;
            ASSERT_EQ(static_cast<std::int64_t>(part.frames.size()), expected);
            for (std::int64_t i = 0; i < expected; ++i) {
                const auto& reference = whole.frames[static_cast<std::size_t>(row.firstFrame + i)];
                EXPECT_EQ(part.frames[static_cast<std::size_t>(i)].time, reference.time);
                EXPECT_EQ(part.frames[static_cast<std::size_t>(i)].luma, reference.luma);
            }
        }
    }
}

TEST(FFmpegFrameReader, TimeRangeStartingInsideAFrameIncludesIt)
{
    const auto asset = openClip("h264-gop12.mp4");
    FrameReaderSettings settings;
    // [50.5, 52.25) frames at 25 fps overlaps frames 50, 51 and 52.
    settings.timeRange = core::MediaTimeRange::fromStartEnd(core::MediaTime::make(202, 100),
                                                            core::MediaTime::make(209, 100));
    const auto part = readFrames(asset, firstVideoTrack(asset), settings);
    ASSERT_EQ(part.frames.size(), 3U);
    EXPECT_EQ(part.frames.front().time, core::MediaTime::make(50, 25));
}

TEST(FFmpegFrameReader, StopRequestEndsTheReadWithinOneFrame)
{
    const auto asset = openClip("h264-bframes.mkv");
    std::stop_source stop;
    auto reader = asset->makeFrameReader(*firstVideoTrack(asset), {}, stop.get_token());
    ASSERT_TRUE(reader);
    ASSERT_TRUE((*reader)->startReading());
    ASSERT_TRUE((*reader)->nextFrame());
    ASSERT_TRUE((*reader)->nextFrame());
    stop.request_stop();
    EXPECT_FALSE((*reader)->nextFrame());
    EXPECT_EQ((*reader)->status(), ReaderStatus::cancelled);
    EXPECT_FALSE((*reader)->error());
}

TEST(FFmpegFrameReader, CancelReadingEndsForGood)
{
    const auto asset = openClip("mjpeg.mov");
    auto reader = asset->makeFrameReader(*firstVideoTrack(asset), {});
    ASSERT_TRUE(reader);
    EXPECT_EQ((*reader)->status(), ReaderStatus::notStarted);
    ASSERT_TRUE((*reader)->startReading());
    EXPECT_FALSE((*reader)->startReading());
    EXPECT_EQ((*reader)->status(), ReaderStatus::reading);
    ASSERT_TRUE((*reader)->nextFrame());
    (*reader)->cancelReading();
    EXPECT_EQ((*reader)->status(), ReaderStatus::cancelled);
    EXPECT_FALSE((*reader)->nextFrame());
    EXPECT_EQ((*reader)->status(), ReaderStatus::cancelled);
}

TEST(FFmpegFrameReader, NonVideoTracksGiveNoReader)
{
    const auto asset = openClip("audio.m4a");
    const auto tracks = *asset->tracks();
    ASSERT_EQ(tracks.size(), 1U);
    const auto reader = asset->makeFrameReader(*tracks.front(), {});
    ASSERT_FALSE(reader);
    EXPECT_EQ(reader.error().domain, "FFmpeg");
    EXPECT_EQ(reader.error().description, "Stream not found");
}

TEST(FFmpegFrameReader, TruncatedFileEndsWithoutCrashing)
{
    const auto asset = openClip("truncated.mp4");
    const auto track = firstVideoTrack(asset);
    ASSERT_TRUE(track);
    auto reader = asset->makeFrameReader(*track, {});
    ASSERT_TRUE(reader);
    ASSERT_TRUE((*reader)->startReading());
    std::size_t frames = 0;
    while ((*reader)->nextFrame()) {
        ++frames;
    }
    // Half the file: some frames, then the end of the data.
    EXPECT_GT(frames, 10U);
    EXPECT_LT(frames, 331U);
    const ReaderStatus status = (*reader)->status();
    EXPECT_TRUE(status == ReaderStatus::completed || status == ReaderStatus::failed);
    if (status == ReaderStatus::failed && (*reader)->error()) {
        EXPECT_FALSE((*reader)->error()->description.empty());
    }
}

}  // namespace
}  // namespace kestrin::media_ffmpeg
