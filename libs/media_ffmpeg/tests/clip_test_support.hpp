#pragma once

#include <kestrin/core/media_time.hpp>
#include <kestrin/media/asset.hpp>

#include <cstdint>
#include <filesystem>
#include <ostream>
#include <string>
#include <vector>

namespace kestrin::core {
/// Lets GoogleTest print times as value/timescale.
inline void PrintTo(const MediaTime& time, std::ostream* out)
{
    *out << time.value << "/" << time.timescale;
}
}  // namespace kestrin::core

namespace kestrin::media_ffmpeg::testing {

/// The cut frames cuts.txt lists for `clip` (presentation order, from 0); fails the test when the
/// clip is not listed.
std::vector<std::int64_t> cutsOf(const std::string& clip);

/// The path of a clip made by tests/clips/make-clips.
std::filesystem::path clipPath(const std::string& name);

/// Opens a clip that must open; fails the test otherwise.
media::AssetPointer openClip(const std::string& name);

/// The clip names in `names`, separated by spaces.
std::vector<std::string> clips(const std::string& names);

/// The first video track of a clip that must have one.
media::TrackPointer firstVideoTrack(const media::AssetPointer& asset);

/// One delivered frame, copied out of the reader.
struct CopiedFrame
{
    core::MediaTime time;
    int width = 0;
    int height = 0;
    std::vector<std::uint8_t> luma;  ///< rows back to back
    bool isDamaged = false;
};

/// Every frame a fresh reader with `settings` delivers, and its final status.
struct ReadResult
{
    std::vector<CopiedFrame> frames;
    media::ReaderStatus status = media::ReaderStatus::notStarted;
    std::vector<core::MediaTime> refusedSamples;
};
ReadResult readFrames(const media::AssetPointer& asset,
                      const media::TrackPointer& track,
                      const media::FrameReaderSettings& settings);

/// The frame index a detector derives from a time: floor(value x num / (timescale x den) + 1e-9)
/// with (num, den) = (minFrameDuration.timescale, minFrameDuration.value).
std::int64_t frameIndexOf(const core::MediaTime& time, const core::MediaTime& frameDuration);

/// Every sample of `track` in decode order, as a sample cursor walks it.
struct WalkedSamples
{
    std::vector<bool> isSync;
    std::vector<core::MediaTime> times;  ///< presentation times
};
WalkedSamples walkInDecodeOrder(const media::TrackPointer& track);

/// What ffprobe says of the first video stream's packets, in decode order: true for a keyframe.
std::vector<bool> probeKeyframeFlags(const std::string& clip);

}  // namespace kestrin::media_ffmpeg::testing
