#pragma once

#include <kestrin/core/error.hpp>
#include <kestrin/core/frame_rate.hpp>
#include <kestrin/media/asset.hpp>

#include <filesystem>
#include <optional>
#include <stop_token>

namespace kestrin::app {

/// What a video file says of its timing.
struct VideoInfo
{
    /// The file's rate snapped to a standard rate; absent when the file states no usable rate
    /// (the rate in force then stays as it was).
    std::optional<core::FrameRate> frameRate;
    /// The drop-frame flag of the file's timecode track at 29.97 and 59.94; absent at other rates
    /// or when no rate is known.
    std::optional<bool> detectedIsDropFrame;
};

/// Opens `path` and reads its first video track's (or else its first track's) nominal rate,
/// falling back to the real frame duration when the nominal rate is 0 or less, and at 29.97 and
/// 59.94 the drop-frame flag of its timecode track. A file without tracks gives an empty VideoInfo.
/// Fails with the media layer's error when the file cannot be opened or a property cannot be read.
/// Cost: opens the file (header and index); decodes nothing.
[[nodiscard]] core::Expected<VideoInfo> loadVideoInfo(const media::AssetOpener& opener,
                                                      const std::filesystem::path& path,
                                                      std::stop_token stopToken = {});

/// Bit 0 of the flags of the first timecode track's first description when that description is a
/// timecode description; otherwise guessed from `rate`: true where drop-frame numbering exists
/// (29.97 and 59.94). Never fails.
[[nodiscard]] bool detectDropFrame(const media::Asset& asset, core::FrameRate rate);

}  // namespace kestrin::app
