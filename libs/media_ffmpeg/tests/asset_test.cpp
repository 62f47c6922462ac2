#include "clip_test_support.hpp"

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>
#include <kestrin/media_ffmpeg/ffmpeg_log.hpp>

#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

namespace kestrin::media_ffmpeg {
namespace {

using media::fourCC;
using media::MediaType;
using testing::clipPath;
using testing::firstVideoTrack;
using testing::openClip;

std::vector<MediaType> mediaTypesOf(const media::AssetPointer& asset)
{
    std::vector<MediaType> types;
    const auto tracks = asset->tracks();
    for (const auto& track : *tracks) {
        types.push_back(track->mediaType());
    }
    return types;
}

media::FourCC subTypeOf(const media::TrackPointer& track)
{
    auto descriptions = track->formatDescriptions();
    EXPECT_TRUE(descriptions && !descriptions->empty());
    return descriptions && !descriptions->empty() ? descriptions->front().mediaSubType : 0;
}

struct TrackRow
{
    const char* clip;
    std::vector<MediaType> types;
    media::FourCC videoSubType;  ///< of the first video track; 0 when there is none
};

TEST(FFmpegAssetTracks, ListTypesAndSubtypesInFileOrder)
{
    const std::vector<TrackRow> rows{
        {"h264-cuts.mp4", {MediaType::video}, fourCC("avc1")},
        {"h264-bframes.mkv", {MediaType::video}, fourCC("avc1")},
        {"prores.mov", {MediaType::video}, fourCC("apcn")},
        {"prores.mkv", {MediaType::video}, fourCC("apcn")},
        {"mjpeg.mov", {MediaType::video}, fourCC("jpeg")},
        {"mjpeg.mkv", {MediaType::video}, fourCC("jpeg")},
        {"mjpeg.avi", {MediaType::video}, fourCC("jpeg")},
        {"dv.mov", {MediaType::video}, fourCC("dvcp")},
        {"timecode-df.mov", {MediaType::video, MediaType::timecode}, fourCC("avc1")},
        // Cover art is an attached picture, not a track.
        {"cover-art.mp4", {MediaType::video}, fourCC("avc1")},
        {"audio.m4a", {MediaType::audio}, 0},
        {"audio.wav", {MediaType::audio}, 0},
    };
    for (const TrackRow& row : rows) {
        SCOPED_TRACE(row.clip);
        const auto asset = openClip(row.clip);
        ASSERT_TRUE(asset);
        EXPECT_EQ(mediaTypesOf(asset), row.types);
        const auto tracks = *asset->tracks();
        for (std::size_t i = 0; i < tracks.size(); ++i) {
            EXPECT_EQ(tracks[i]->trackIndex(), static_cast<int>(i));
            EXPECT_TRUE(*tracks[i]->canProvideSampleCursors());
        }
        const auto video = *asset->tracksWithMediaType(MediaType::video);
        if (row.videoSubType == 0) {
            EXPECT_TRUE(video.empty());
        } else {
            ASSERT_FALSE(video.empty());
            EXPECT_EQ(media::fourCCText(subTypeOf(video.front())),
                      media::fourCCText(row.videoSubType));
        }
    }
}

TEST(FFmpegAssetTracks, IntraOnlyCodecsKeepTheirCodeInEveryContainer)
{
    const std::vector<std::vector<const char*>> families{
        {"prores.mov", "prores.mkv"},
        {"mjpeg.mov", "mjpeg.mkv", "mjpeg.avi"},
        {"dv.mov", "dv.avi"},
    };
    for (const auto& family : families) {
        const media::FourCC expected = subTypeOf(firstVideoTrack(openClip(family.front())));
        for (const char* clip : family) {
            SCOPED_TRACE(clip);
            EXPECT_EQ(media::fourCCText(subTypeOf(firstVideoTrack(openClip(clip)))),
                      media::fourCCText(expected));
        }
    }
}

TEST(FFmpegAssetTracks, TimecodeFlagsTellDropFrame)
{
    const std::vector<std::pair<const char*, std::uint32_t>> rows{
        {"timecode-df.mov", media::kTimeCodeFlagDropFrame},
        {"timecode-ndf.mov", 0},
    };
    for (const auto& [clip, dropFrame] : rows) {
        SCOPED_TRACE(clip);
        const auto timecode = *openClip(clip)->tracksWithMediaType(MediaType::timecode);
        ASSERT_EQ(timecode.size(), 1U);
        const auto descriptions = *timecode.front()->formatDescriptions();
        ASSERT_EQ(descriptions.size(), 1U);
        EXPECT_EQ(descriptions.front().mediaType, MediaType::timecode);
        EXPECT_EQ(descriptions.front().mediaSubType, fourCC("tmcd"));
        EXPECT_EQ(descriptions.front().timeCodeFlags & media::kTimeCodeFlagDropFrame, dropFrame);
    }
}

struct RateRow
{
    const char* clip;
    float nominalRate;
    core::MediaTime frameDuration;
};

// Containers whose clocks cannot hold the frame grid still give the real frame duration.
TEST(FFmpegAssetTiming, FrameDurationIsTheRealOne)
{
    const std::vector<RateRow> rows{
        {"h264-cuts.mp4", 25.0F, core::MediaTime::make(1, 25)},
        {"h264-bframes.mkv", 25.0F, core::MediaTime::make(1, 25)},
        {"vp8-5994.webm", 59.94F, core::MediaTime::make(1001, 60000)},
        {"h264-2997-us.mp4", 29.97F, core::MediaTime::make(1001, 30000)},
        {"mpeg2-offset.mpg", 29.97F, core::MediaTime::make(1001, 30000)},
        {"timecode-df.mov", 29.97F, core::MediaTime::make(1001, 30000)},
    };
    for (const RateRow& row : rows) {
        SCOPED_TRACE(row.clip);
        const auto track = firstVideoTrack(openClip(row.clip));
        ASSERT_TRUE(track);
        EXPECT_NEAR(*track->nominalFrameRate(), row.nominalRate, 0.01F);
        const core::MediaTime duration = *track->minFrameDuration();
        EXPECT_EQ(duration, row.frameDuration);
        EXPECT_EQ(duration.timescale, row.frameDuration.timescale);
    }
}

TEST(FFmpegAssetTiming, DurationCoversTheFrames)
{
    // 331 frames at 25 fps.
    const auto asset = openClip("h264-cuts.mp4");
    ASSERT_TRUE(asset);
    EXPECT_NEAR(asset->duration()->seconds(), 331.0 / 25.0, 0.05);
}

struct BadFileRow
{
    std::string clip;
    std::string description;  ///< empty: any non-empty text
};

TEST(FFmpegAssetOpening, BadFilesGiveFFmpegErrors)
{
    const std::vector<BadFileRow> rows{
        {"missing.mp4", "No such file or directory"},
        {"empty.mp4", "Invalid data found when processing input"},
        {"random.bin", "Invalid data found when processing input"},
        {"no-moov.mp4", "Invalid data found when processing input"},
    };
    const FFmpegAssetOpener opener;
    for (const BadFileRow& row : rows) {
        SCOPED_TRACE(row.clip);
        const auto asset = opener.openAsset(clipPath(row.clip));
        ASSERT_FALSE(asset);
        EXPECT_EQ(asset.error().domain, "FFmpeg");
        EXPECT_LT(asset.error().code, 0);
        EXPECT_EQ(asset.error().description, row.description);
    }
}

TEST(FFmpegAssetOpening, StopRequestEndsOpening)
{
    std::stop_source stop;
    stop.request_stop();
    const auto asset = FFmpegAssetOpener().openAsset(clipPath("h264-cuts.mp4"), stop.get_token());
    ASSERT_FALSE(asset);
    EXPECT_EQ(asset.error().domain, "FFmpeg");
    EXPECT_EQ(asset.error().description, "Immediate exit requested");
}

TEST(FFmpegLog, DeliversWholeLinesOfFFmpegMessages)
{
    std::mutex mutex;
    std::vector<std::string> lines;
    routeFFmpegLog(core::Log([&](std::string_view line) {
        const std::lock_guard lock(mutex);
        lines.emplace_back(line);
    }));
    const auto asset = FFmpegAssetOpener().openAsset(clipPath("no-moov.mp4"));
    routeFFmpegLog(core::Log(), FFmpegLogLevel::error);

    EXPECT_FALSE(asset);
    ASSERT_FALSE(lines.empty());
    bool sawMoov = false;
    for (const std::string& line : lines) {
        EXPECT_EQ(line.find('\n'), std::string::npos) << line;
        // One message, prefix and text together.
        if (line.find("moov atom not found") != std::string::npos) {
            sawMoov = true;
            EXPECT_EQ(line.rfind("[mov,mp4", 0), 0U) << line;
        }
    }
    EXPECT_TRUE(sawMoov);
}

TEST(FFmpegLog, LevelFiltersMessages)
{
    std::vector<std::string> lines;
    routeFFmpegLog(core::Log([&](std::string_view line) { lines.emplace_back(line); }),
                   FFmpegLogLevel::quiet);
    (void)FFmpegAssetOpener().openAsset(clipPath("no-moov.mp4"));
    routeFFmpegLog(core::Log(), FFmpegLogLevel::error);
    EXPECT_TRUE(lines.empty());
}

}  // namespace
}  // namespace kestrin::media_ffmpeg
