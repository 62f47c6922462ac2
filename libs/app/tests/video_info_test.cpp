#include <kestrin/app/video_info.hpp>
#include <kestrin/media_testing/synthetic_asset.hpp>

#include <gtest/gtest.h>

#include <memory>

namespace kestrin::app {
namespace {

using core::MediaTime;
using media_testing::SyntheticAsset;
using media_testing::SyntheticTrack;

SyntheticTrack videoAt(float rate)
{
    SyntheticTrack track;
    track.nominalFrameRate = rate;
    return track;
}

SyntheticTrack timecodeTrack(std::uint32_t flags)
{
    SyntheticTrack track;
    track.mediaType = media::MediaType::timecode;
    track.formatDescriptions = std::vector<media::FormatDescription>{
        {media::MediaType::timecode, media::fourCC("tmcd"), flags}};
    return track;
}

core::Expected<VideoInfo> infoOf(std::vector<SyntheticTrack> tracks)
{
    media_testing::SyntheticAssetOpener opener;
    opener.add("clip.mov",
               std::make_shared<SyntheticAsset>(MediaTime::make(10, 1), std::move(tracks)));
    return loadVideoInfo(opener, "clip.mov");
}

TEST(VideoInfo, DropFrameComesFromTheTimecodeTrackOrTheRate)
{
    struct Row
    {
        const char* what;
        std::vector<SyntheticTrack> tracks;
        std::optional<core::FrameRate> rate;
        std::optional<bool> dropFrame;
    };
    SyntheticTrack audio = videoAt(0.0F);
    audio.mediaType = media::MediaType::audio;
    SyntheticTrack byFrameDuration = videoAt(0.0F);
    byFrameDuration.minFrameDuration = MediaTime::make(1001, 60000);
    SyntheticTrack noRate = videoAt(0.0F);
    noRate.minFrameDuration = MediaTime::invalid();
    const Row rows[] = {
        {"non-drop timecode", {videoAt(29.97F), timecodeTrack(0)}, core::kFps2997, false},
        {"drop-frame timecode", {videoAt(29.97F), timecodeTrack(1)}, core::kFps2997, true},
        {"no timecode track", {videoAt(29.97F)}, core::kFps2997, true},
        {"a rate without drop-frame",
         {videoAt(25.0F), timecodeTrack(1)},
         core::kFps25,
         std::nullopt},
        {"video after audio", {audio, videoAt(23.98F)}, core::kFps23976, std::nullopt},
        {"rate from the frame duration", {byFrameDuration}, core::kFps5994, true},
        {"no rate at all", {noRate}, std::nullopt, std::nullopt},
        {"no tracks", {}, std::nullopt, std::nullopt},
    };
    for (const Row& row : rows) {
        const auto info = infoOf(row.tracks);
        ASSERT_TRUE(info) << row.what;
        EXPECT_EQ(info->frameRate, row.rate) << row.what;
        EXPECT_EQ(info->detectedIsDropFrame, row.dropFrame) << row.what;
    }
}

TEST(VideoInfo, LoadFailuresArePassedOn)
{
    SyntheticTrack broken = videoAt(25.0F);
    broken.nominalFrameRate = core::Error{"FFmpeg", -5, "Input/output error"};
    EXPECT_EQ(infoOf({broken}).error().description, "Input/output error");
    const media_testing::SyntheticAssetOpener nothing;
    EXPECT_FALSE(loadVideoInfo(nothing, "missing.mov"));
}

}  // namespace
}  // namespace kestrin::app
