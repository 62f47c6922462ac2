#include <kestrin/app/export_rules.hpp>
#include <kestrin/app/video_info.hpp>

#include <cmath>

namespace kestrin::app {

bool detectDropFrame(const media::Asset& asset, float rate)
{
    const auto timecodeTracks = asset.tracksWithMediaType(media::MediaType::timecode);
    if (timecodeTracks && !timecodeTracks->empty()) {
        const auto descriptions = timecodeTracks->front()->formatDescriptions();
        if (descriptions && !descriptions->empty()
            && descriptions->front().mediaType == media::MediaType::timecode) {
            return (descriptions->front().timeCodeFlags & media::kTimeCodeFlagDropFrame) != 0U;
        }
    }
    const float snapped = snapFrameRate(rate);
    return std::fabs(snapped - 29.97F) < 0.02F || std::fabs(snapped - 59.94F) < 0.05F;
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
    info.nominalFPS = snapFrameRate(rate);
    if (std::fabs(*info.nominalFPS - 29.97F) < 0.002F
        || std::fabs(*info.nominalFPS - 59.94F) < 0.002F) {
        info.detectedIsDropFrame = detectDropFrame(**asset, *info.nominalFPS);
    }
    return info;
}

}  // namespace kestrin::app
