#include "clip_test_support.hpp"

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <memory>

namespace kestrin::media_ffmpeg::testing {

std::filesystem::path clipPath(const std::string& name)
{
    return std::filesystem::path(KESTRIN_CLIPS_DIR) / name;
}

media::AssetPointer openClip(const std::string& name)
{
    const FFmpegAssetOpener opener;
    auto asset = opener.openAsset(clipPath(name));
    if (!asset) {
        ADD_FAILURE() << name << ": " << asset.error().description;
        return nullptr;
    }
    return *asset;
}

media::TrackPointer firstVideoTrack(const media::AssetPointer& asset)
{
    if (!asset) {
        return nullptr;
    }
    auto tracks = asset->tracksWithMediaType(media::MediaType::video);
    if (!tracks || tracks->empty()) {
        ADD_FAILURE() << "no video track";
        return nullptr;
    }
    return tracks->front();
}

ReadResult readFrames(const media::AssetPointer& asset,
                      const media::TrackPointer& track,
                      const media::FrameReaderSettings& settings)
{
    ReadResult result;
    auto reader = asset->makeFrameReader(*track, settings);
    if (!reader) {
        ADD_FAILURE() << reader.error().description;
        return result;
    }
    EXPECT_TRUE((*reader)->startReading());
    while (auto frame = (*reader)->nextFrame()) {
        CopiedFrame copy{frame->presentationTime, frame->width, frame->height, {}};
        for (int row = 0; row < frame->height; ++row) {
            const std::uint8_t* start = frame->data + row * frame->bytesPerRow;
            copy.luma.insert(copy.luma.end(), start, start + frame->width);
        }
        result.frames.push_back(std::move(copy));
    }
    result.status = (*reader)->status();
    return result;
}

std::int64_t frameIndexOf(const core::MediaTime& time, const core::MediaTime& frameDuration)
{
    const auto num = static_cast<double>(frameDuration.timescale);
    const auto den = static_cast<double>(frameDuration.value);
    return static_cast<std::int64_t>(std::floor(static_cast<double>(time.value) * num
                                                    / (static_cast<double>(time.timescale) * den)
                                                + 1e-9));
}

std::vector<bool> probeKeyframeFlags(const std::string& clip)
{
    const std::string command =
        "ffprobe -v error -select_streams v:0 -show_entries packet=flags -of csv=p=0 '"
        + clipPath(clip).string() + "'";
    std::vector<bool> flags;
    struct Closer
    {
        void operator()(FILE* file) const { pclose(file); }
    };
    const std::unique_ptr<FILE, Closer> pipe(popen(command.c_str(), "r"));
    if (!pipe) {
        ADD_FAILURE() << "cannot run ffprobe";
        return flags;
    }
    char line[64];
    while (std::fgets(line, sizeof line, pipe.get()) != nullptr) {
        flags.push_back(line[0] == 'K');
    }
    return flags;
}

}  // namespace kestrin::media_ffmpeg::testing
