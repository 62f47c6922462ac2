#include "clip_test_support.hpp"

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>

namespace kestrin::media_ffmpeg::testing {

std::filesystem::path clipPath(const std::string& name)
{
    return std::filesystem::path(KESTRIN_CLIPS_DIR) / name;
}

std::vector<std::int64_t> cutsOf(const std::string& clip)
{
    std::ifstream manifest(clipPath("cuts.txt"));
    std::string line;
    while (std::getline(manifest, line)) {
        std::istringstream fields(line);
        std::string name;
        std::string rate;
        fields >> name >> rate;
        if (name == clip) {
            std::vector<std::int64_t> cuts;
            for (std::int64_t frame = 0; fields >> frame;) {
                cuts.push_back(frame);
            }
            return cuts;
        }
    }
    ADD_FAILURE() << clip << " is not in cuts.txt";
    return {};
}

media::AssetPointer openClip(const std::string& name)
{
    auto asset = FFmpegAssetOpener().openAsset(clipPath(name));
    EXPECT_TRUE(asset) << name << ": " << (asset ? "" : asset.error().description);
    return asset ? *asset : nullptr;
}

std::vector<std::string> clips(const std::string& names)
{
    std::istringstream in(names);
    return {std::istream_iterator<std::string>(in), {}};
}

media::TrackPointer firstVideoTrack(const media::AssetPointer& asset)
{
    const auto tracks = asset ? asset->tracksWithMediaType(media::MediaType::video).value()
                              : std::vector<media::TrackPointer>{};
    if (tracks.empty()) {
        ADD_FAILURE() << "no video track";
        return nullptr;
    }
    return tracks.front();
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
        CopiedFrame& copy = result.frames.emplace_back(CopiedFrame{
            frame->presentationTime, frame->width, frame->height, {}, frame->isDamaged});
        for (int row = 0; row < frame->height; ++row) {
            const std::uint8_t* start = frame->data + row * frame->bytesPerRow;
            copy.luma.insert(copy.luma.end(), start, start + frame->width);
        }
    }
    result.status = (*reader)->status();
    result.refusedSamples = (*reader)->refusedSampleTimes();
    return result;
}

std::int64_t frameIndexOf(const core::MediaTime& time, const core::MediaTime& frameDuration)
{
    const auto num = static_cast<double>(time.value * frameDuration.timescale);
    const auto den = static_cast<double>(time.timescale * frameDuration.value);
    return static_cast<std::int64_t>(std::floor(num / den + 1e-9));
}

WalkedSamples walkInDecodeOrder(const media::TrackPointer& track)
{
    WalkedSamples walked;
    auto cursor = track->makeSampleCursorAtFirstSampleInDecodeOrder();
    EXPECT_TRUE(cursor);
    for (bool more = cursor != nullptr; more; more = cursor->stepInDecodeOrder(1) == 1) {
        walked.isSync.push_back(cursor->currentSampleIsFullSync());
        walked.times.push_back(cursor->presentationTimeStamp());
    }
    return walked;
}

std::vector<bool> probeKeyframeFlags(const std::string& clip)
{
    const std::string command =
        "ffprobe -v error -select_streams v:0 -show_entries packet=flags -of csv=p=0 '"
        + clipPath(clip).string() + "'";
    std::vector<bool> flags;
    const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), pclose);
    char line[64];
    while (pipe && std::fgets(line, sizeof line, pipe.get()) != nullptr) {
        flags.push_back(line[0] == 'K');
    }
    EXPECT_FALSE(flags.empty()) << command;
    return flags;
}

}  // namespace kestrin::media_ffmpeg::testing
