#include "clip_test_support.hpp"

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

namespace kestrin::media_ffmpeg {
namespace {

using core::MediaTime;
using media::ReaderStatus;
using testing::firstVideoTrack;
using testing::openClip;
using testing::readFrames;

// The real frame duration, also where the container's clock cannot hold the frame grid (1 ms at
// 59.94, microseconds at 29.97) or starts late (MPEG-PS at 10 s); every time-to-frame conversion
// lands on the frame decoded there, and the cursor reports the very same times.
TEST(FFmpegFrameReader, FrameIndexFromTimeIsTheDecodedPosition)
{
    const std::pair<const char*, MediaTime> rows[] = {
        {"h264-cuts.mp4", MediaTime::make(1, 25)},
        {"h264-bframes.mkv", MediaTime::make(1, 25)},
        {"vp8-5994.webm", MediaTime::make(1001, 60000)},
        {"h264-2997-us.mp4", MediaTime::make(1001, 30000)},
        {"mpeg2-offset.mpg", MediaTime::make(1001, 30000)},
        {"timecode-df.mov", MediaTime::make(1001, 30000)},
    };
    for (const auto& [clip, frameDuration] : rows) {
        SCOPED_TRACE(clip);
        const auto asset = openClip(clip);
        const auto track = firstVideoTrack(asset);
        ASSERT_TRUE(track);
        EXPECT_NEAR(*track->nominalFrameRate(), 1.0 / frameDuration.seconds(), 0.01);
        EXPECT_EQ(::testing::PrintToString(*track->minFrameDuration()),
                  ::testing::PrintToString(frameDuration));  // the very value and timescale
        const auto read = readFrames(asset, track, {});
        EXPECT_EQ(read.status, ReaderStatus::completed);
        const double seconds = static_cast<double>(read.frames.size()) * frameDuration.seconds();
        EXPECT_NEAR(asset->duration()->seconds(), seconds, 0.05);
        auto cursorTimes = testing::walkInDecodeOrder(track).times;
        std::sort(cursorTimes.begin(), cursorTimes.end());
        ASSERT_EQ(cursorTimes.size(), read.frames.size());
        for (std::size_t i = 0; i < read.frames.size(); ++i) {
            const MediaTime time = read.frames[i].time;
            ASSERT_EQ(testing::frameIndexOf(time, frameDuration), static_cast<std::int64_t>(i))
                << time.value << "/" << time.timescale;
            ASSERT_EQ(cursorTimes[i], time);
        }
    }
}

// Full-range output is the same, within 1, from full- and video-range sources of any depth;
// video-range output uses the whole of 16...235 and no more.
TEST(FFmpegFrameReader, LumaRangesAreHonoured)
{
    // Full range at the clips' own size; video range at the default size.
    const media::FrameReaderSettings full{.width = 320, .height = 180, .timeRange = {}};
    const media::FrameReaderSettings video{.range = media::LumaRange::video, .timeRange = {}};
    const auto fullSource = openClip("range-full.mp4");
    const auto reference = readFrames(fullSource, firstVideoTrack(fullSource), full);
    ASSERT_EQ(reference.frames.size(), 24U);
    for (const std::string& clip : testing::clips(
             "range-video.mp4 range-video-10bit.mkv range-full.mp4 prores.mov mjpeg.avi")) {
        SCOPED_TRACE(clip);
        const auto asset = openClip(clip);
        if (clip.starts_with("range-")) {
            const auto fullRead = readFrames(asset, firstVideoTrack(asset), full);
            ASSERT_EQ(fullRead.frames.size(), reference.frames.size());
            for (std::size_t i = 0; i < reference.frames.size(); ++i) {
                ASSERT_EQ(fullRead.frames[i].luma.size(), 320U * 180U);
                for (std::size_t p = 0; p < 320U * 180U; ++p) {
                    ASSERT_NEAR(fullRead.frames[i].luma[p], reference.frames[i].luma[p], 1) << i;
                }
            }
        }
        std::vector<std::uint8_t> luma;
        for (const auto& frame : readFrames(asset, firstVideoTrack(asset), video).frames) {
            EXPECT_EQ(std::pair(frame.width, frame.height), std::pair(96, 54));
            luma.insert(luma.end(), frame.luma.begin(), frame.luma.end());
        }
        // The clips hold black and white: the range is used, not squeezed further.
        ASSERT_FALSE(luma.empty());
        const auto [low, high] = std::minmax_element(luma.begin(), luma.end());
        EXPECT_TRUE(*low >= 16 && *low <= 20) << +*low;
        EXPECT_TRUE(*high >= 225 && *high <= 235) << +*high;
    }
}

// A range delivers exactly the frames whose display interval it overlaps, decoded as in a
// whole-track read. Ranges are in hundredths of a second, a quarter of a frame at 25 fps.
TEST(FFmpegFrameReader, TimeRangeDeliversTheOverlappingFrames)
{
    for (const std::string& clip : testing::clips(
             "h264-bframes.mp4 h264-bframes.mkv h264-cuts.mp4 h264-gop12.mp4 prores.mov")) {
        SCOPED_TRACE(clip);
        const auto asset = openClip(clip);
        const auto track = firstVideoTrack(asset);
        const auto whole = readFrames(asset, track, {});
        const auto count = std::ssize(whole.frames);
        ASSERT_GT(count, 80);
        // One asset for all rows, so each reader takes over the decoder the last one left: some
        // go on from where it stopped (202 after 124..160 in an indexed file), others seek back.
        const std::int64_t starts[] = {0, 200, 124, 202, count * 4 - 12, count * 4 - 7};
        const std::int64_t ends[] = {20, 252, 160, 209, count * 4, count * 4 + 200};
        for (std::size_t row = 0; row < std::size(starts); ++row) {
            SCOPED_TRACE(std::to_string(starts[row]) + ".." + std::to_string(ends[row]));
            const auto range = core::MediaTimeRange::fromStartEnd(MediaTime::make(starts[row], 100),
                                                                  MediaTime::make(ends[row], 100));
            const auto part = readFrames(asset, track, {.timeRange = range});
            EXPECT_EQ(part.status, ReaderStatus::completed);
            const std::int64_t first = starts[row] / 4;
            ASSERT_EQ(std::ssize(part.frames), std::min((ends[row] + 3) / 4, count) - first);
            for (std::size_t i = 0; i < part.frames.size(); ++i) {
                const auto& reference = whole.frames[static_cast<std::size_t>(first) + i];
                EXPECT_EQ(part.frames[i].time, reference.time);
                EXPECT_EQ(part.frames[i].luma, reference.luma);
            }
        }
    }
}

// A stop request or cancelReading ends the read within one frame, for good and without an error.
TEST(FFmpegFrameReader, StopRequestAndCancelEndTheReadWithinOneFrame)
{
    for (const bool viaStopToken : {true, false}) {
        SCOPED_TRACE(viaStopToken);
        const auto asset = openClip(viaStopToken ? "h264-bframes.mkv" : "mjpeg.mov");
        std::stop_source stop;
        auto reader = asset->makeFrameReader(*firstVideoTrack(asset), {}, stop.get_token());
        ASSERT_TRUE(reader);
        EXPECT_EQ((*reader)->status(), ReaderStatus::notStarted);
        ASSERT_TRUE((*reader)->startReading());
        EXPECT_FALSE((*reader)->startReading());
        EXPECT_EQ((*reader)->status(), ReaderStatus::reading);
        ASSERT_TRUE((*reader)->nextFrame());
        if (viaStopToken) {
            stop.request_stop();
        } else {
            (*reader)->cancelReading();
            EXPECT_EQ((*reader)->status(), ReaderStatus::cancelled);
        }
        EXPECT_FALSE((*reader)->nextFrame());
        EXPECT_EQ((*reader)->status(), ReaderStatus::cancelled);
        EXPECT_FALSE((*reader)->error());
    }
}

// A damaged file is read to its end: the frames there are, the damaged ones marked, the samples
// the decoder refused listed; the track still declares the duration the file should have.
TEST(FFmpegFrameReader, DamagedFilesAreReadToTheEndOfTheirData)
{
    struct Row
    {
        std::string clip;
        std::size_t fewestFrames;
        std::size_t mostFrames;
        bool isDamaged;  // some frame marked or some sample refused
    };
    const std::vector<Row> rows = {
        {"h264-bframes.mkv", 331, 331, false},  // intact: declared by the track's DURATION tag
        {"damaged.mkv", 98, 98, true},
        {"truncated.mkv", 100, 300, false},
        {"truncated.mp4", 100, 300, true},  // its last sample cut short
        {"truncated-start.mp4", 1, 60, true},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.clip);
        const auto asset = openClip(row.clip);
        const auto track = firstVideoTrack(asset);
        const bool isProRes = row.clip == "damaged.mkv";
        EXPECT_EQ(track->declaredDuration(),
                  core::MediaTime::make(isProRes ? 3'920'000 : 13'240'000, 1'000'000));
        const auto read = readFrames(asset, track, {});
        EXPECT_EQ(read.status, ReaderStatus::completed);
        EXPECT_GE(read.frames.size(), row.fewestFrames);
        EXPECT_LE(read.frames.size(), row.mostFrames);
        const bool isDamaged =
            !read.refusedSamples.empty()
            || std::ranges::any_of(read.frames, &testing::CopiedFrame::isDamaged);
        EXPECT_EQ(isDamaged, row.isDamaged);
    }
}

}  // namespace
}  // namespace kestrin::media_ffmpeg
