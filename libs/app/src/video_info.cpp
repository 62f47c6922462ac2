#include <kestrin/app/video_info.hpp>

#include <cmath>

namespace kestrin::app {

bool detectDropFrame(const media::Asset& asset, core::FrameRate rate)
{
    const auto timecodeTracks = asset.tracksWithMediaType(media::MediaType::timecode);
    if (timecodeTracks && !timecodeTracks->empty()) {
        const auto descriptions = timecodeTracks->front()->formatDescriptions();
        if (descriptions && !descriptions->empty()
            && descriptions->front().mediaType == media::MediaType::timecode) {
            return (descriptions->front().timeCodeFlags & media::kTimeCodeFlagDropFrame) != 0U;
        }
    }
    return rate.allowsDropFrame();
}

core::Expected<VideoInfo> loadVideoInfo(const media::AssetOpener& opener,
                                        const std::filesystem::path& path,
                                        std::stop_token stopToken)
{
    const auto asset = opener.openAsset(path, std::move(stopToken));
    if (!asset) {
        return asset.error();
    }
    const auto tracks = (*asset)->tracks();
    if (!tracks) {
        return tracks.error();
    }
    if (tracks->empty()) {
        return VideoInfo{};
    }
    media::TrackPointer track = tracks->front();
    for (const media::TrackPointer& candidate : *tracks) {
        if (candidate->mediaType() == media::MediaType::video) {
            track = candidate;
            break;
        }
    }

    const auto nominal = track->nominalFrameRate();
    if (!nominal) {
        return nominal.error();
    }
    float rate = *nominal;
    if (std::isnan(rate)) {
        return VideoInfo{};
    }
    if (rate <= 0.0F) {
        const auto frameDuration = track->minFrameDuration();
        if (!frameDuration) {
            return frameDuration.error();
        }
        if (frameDuration->isValid() && frameDuration->timescale != 0
            && frameDuration->value != 0) {
            rate = static_cast<float>(frameDuration->timescale)
                   / static_cast<float>(frameDuration->value);
        }
        if (!(rate > 0.0F)) {
            return VideoInfo{};
        }
    }

    VideoInfo info;
    info.frameRate = core::standardFrameRate(rate);
    if (info.frameRate->allowsDropFrame()) {
        info.detectedIsDropFrame = detectDropFrame(**asset, *info.frameRate);
    }
    return info;
}

}  // namespace kestrin::app
