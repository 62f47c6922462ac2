#include "clip_test_support.hpp"

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>
#include <kestrin/media_ffmpeg/ffmpeg_log.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

namespace kestrin::media_ffmpeg {
namespace {

using media::MediaType;
using testing::clipPath;

// "<type>/<subtype>" for each description of `track`, with "/DF" for drop-frame timecode.
std::string describe(const media::Track& track)
{
    static const char* const kTypes[] = {"video", "audio", "timecode", "subtitle", "data", "?"};
    std::string text = kTypes[static_cast<std::size_t>(track.mediaType())];
    const auto descriptions = track.formatDescriptions();
    for (const media::FormatDescription& description : *descriptions) {
        EXPECT_EQ(description.mediaType, track.mediaType());
        const bool dropFrame = (description.timeCodeFlags & media::kTimeCodeFlagDropFrame) != 0;
        text += "/" + media::fourCCText(description.mediaSubType) + (dropFrame ? "/DF" : "");
    }
    return text;
}

// Tracks in file order, each with one description. Intra-only codecs keep their code in every
// container; cover art is an attached picture, not a track; the timecode track tells drop frame;
// an audio track has a cursor but no frame reader.
TEST(FFmpegAssetTracks, ListTypesAndDescriptionsInFileOrder)
{
    const std::pair<const char*, const char*> rows[] = {
        {"h264-cuts.mp4 h264-bframes.mkv cover-art.mp4", "video/avc1"},
        {"prores.mov prores.mkv", "video/apcn"},
        {"mjpeg.mov mjpeg.mkv mjpeg.avi", "video/jpeg"},
        {"dv.mov dv.avi", "video/dvcp"},
        {"timecode-df.mov", "video/avc1 timecode/tmcd/DF"},
        {"timecode-ndf.mov", "video/avc1 timecode/tmcd"},
        {"audio.m4a", "audio/mp4a"},
        {"audio.wav", "audio/sowt"},
    };
    for (const auto& [clips, expected] : rows) {
        for (const std::string& clip : testing::clips(clips)) {
            SCOPED_TRACE(clip);
            const auto asset = testing::openClip(clip);
            ASSERT_TRUE(asset);
            const auto tracks = *asset->tracks();
            std::string actual;
            for (std::size_t i = 0; i < tracks.size(); ++i) {
                EXPECT_EQ(tracks[i]->trackIndex(), static_cast<int>(i));
                EXPECT_TRUE(*tracks[i]->canProvideSampleCursors());
                actual += (i == 0 ? "" : " ") + describe(*tracks[i]);
            }
            EXPECT_EQ(actual, expected);
            const bool isAudio = std::string_view(expected).starts_with("audio");
            EXPECT_EQ(asset->tracksWithMediaType(MediaType::video)->size(), isAudio ? 0U : 1U);
            if (isAudio) {
                EXPECT_GT(testing::walkInDecodeOrder(tracks.front()).times.size(), 10U);
                const auto reader = asset->makeFrameReader(*tracks.front(), {});
                ASSERT_FALSE(reader);
                EXPECT_EQ(reader.error().domain + ": " + reader.error().description,
                          "FFmpeg: Stream not found");
            }
        }
    }
}

TEST(FFmpegAssetOpening, BadFilesAndStopRequestsGiveFFmpegErrors)
{
    std::stop_source stop;
    stop.request_stop();
    const std::string exit = "Immediate exit requested";  // opening under a stop request
    const std::pair<const char*, std::string> rows[] = {
        {"missing.mp4", "No such file or directory"},
        {"empty.mp4", "Invalid data found when processing input"},
        {"random.bin", "Invalid data found when processing input"},
        {"no-moov.mp4", "Invalid data found when processing input"},
        {"h264-cuts.mp4", exit},
    };
    for (const auto& [clip, description] : rows) {
        SCOPED_TRACE(clip);
        const auto asset = FFmpegAssetOpener().openAsset(
            clipPath(clip), description == exit ? stop.get_token() : std::stop_token());
        ASSERT_FALSE(asset);
        EXPECT_LT(asset.error().code, 0);
        EXPECT_EQ(asset.error().domain + ": " + asset.error().description,
                  "FFmpeg: " + description);
    }
}

// Only the local file named is read: a path that looks like a URL is a file name, a file that
// lists other files is refused unread, and what is not a regular file is refused before anything
// reads it (a FIFO without a writer would block a plain open for ever).
TEST(FFmpegAssetOpening, OnlyTheRegularFileNamedIsRead)
{
    const std::filesystem::path dir = std::filesystem::path(::testing::TempDir())
                                      / ("kestrin_inputs_" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    const std::string clip = clipPath("h264-cuts.mp4");
    const auto write = [&](const char* name, const std::string& text) {
        std::ofstream(dir / name) << text;
        return (dir / name).string();
    };
    const std::string fifo = (dir / "fifo.mp4").string();
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    const std::string missing = "No such file or directory";
    const auto list = [](const char* format) {
        return "Input: Is a list of other files or addresses (" + std::string(format)
               + "), not a video file; only the file itself is read";
    };
    const std::pair<std::string, std::string> rows[] = {
        {"http://127.0.0.1:9/clip.mp4", "FFmpeg: " + missing},
        {"concat:" + clip + "|" + clip, "FFmpeg: " + missing},
        {"subfile:,,start,0,end,1000,,:" + clip, "FFmpeg: " + missing},
        {"pipe:0", "FFmpeg: " + missing},
        {write("playlist.mp4",
               "#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXTINF:10,\n" + clip + "\n#EXT-X-ENDLIST\n"),
         list("Apple HTTP Live Streaming")},
        {write("list.mp4", "ffconcat version 1.0\nfile '" + clip + "'\n"),
         list("Virtual concatenation script")},
        {fifo, "Input: Is a FIFO, not a video file; only regular files can be scanned"},
        {"/dev/null",
         "Input: Is a character device, not a video file; only regular files can be "
         "scanned"},
        {dir.string(), "FFmpeg: Is a directory"},
    };
    for (const auto& [path, description] : rows) {
        const auto asset = FFmpegAssetOpener().openAsset(path);
        ASSERT_FALSE(asset) << path;
        EXPECT_EQ(asset.error().domain + ": " + asset.error().description, description) << path;
    }
    std::filesystem::remove_all(dir);
}

TEST(FFmpegLog, DeliversWholeLinesAtTheChosenLevel)
{
    std::vector<std::string> lines;  // FFmpeg logs on the opening thread
    const core::Log log([&lines](std::string_view line) { lines.emplace_back(line); });
    routeFFmpegLog(log, FFmpegLogLevel::quiet);
    EXPECT_FALSE(FFmpegAssetOpener().openAsset(clipPath("no-moov.mp4")));
    EXPECT_TRUE(lines.empty());

    routeFFmpegLog(log);
    EXPECT_FALSE(FFmpegAssetOpener().openAsset(clipPath("no-moov.mp4")));
    routeFFmpegLog(core::Log(), FFmpegLogLevel::error);
    for (const std::string& line : lines) {
        EXPECT_EQ(line.find('\n'), std::string::npos) << line;
    }
    // One message, prefix and text together.
    EXPECT_TRUE(std::ranges::any_of(lines, [](const std::string& line) {
        return line.starts_with("[mov,mp4")
               && line.find("moov atom not found") != std::string::npos;
    }));
}

}  // namespace
}  // namespace kestrin::media_ffmpeg
