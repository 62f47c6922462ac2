#pragma once

#include <kestrin/core/error.hpp>
#include <kestrin/core/media_time.hpp>
#include <kestrin/media/asset.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace kestrin::media_testing {

namespace detail {
struct SyntheticCounters;
}  // namespace detail

/// A picture as a function of the normalised position of a pixel's centre (x and y in [0, 1)),
/// giving its full-range luma. Readers render it at whatever size they are asked for, so one
/// scripted picture serves 96 x 54 and 320 x 180 alike.
using Picture = std::function<std::uint8_t(double x, double y)>;

/// A picture of one flat luma value.
Picture flatPicture(std::uint8_t luma);
/// A picture of vertical bars: `bars` bars alternating between `dark` and `light`.
Picture barsPicture(int bars, std::uint8_t dark, std::uint8_t light);

/// One sample of a synthetic track, listed in decode order.
struct SyntheticSample
{
    core::MediaTime presentationTime;
    bool isSync = false;
    /// The decoded picture; absent for a sample that decodes to no image.
    std::optional<Picture> picture;
    /// Whether other frames refer to it: a reader asked for its lead-in delivers only these.
    bool isReference = true;
    /// Delivered marked as damaged, as a decoder marks a picture it concealed errors in.
    bool isDamaged = false;
};

/// What a reader of a synthetic track should do wrong, for failure tests.
struct ReaderFaults
{
    /// makeFrameReader fails with this error.
    std::optional<core::Error> makeError;
    /// startReading returns false; the reader reports this error (absent: fails without one).
    bool refuseStart = false;
    std::optional<core::Error> startError;
    /// After delivering this many frames the reader fails, with `readError` if present.
    std::optional<std::int64_t> failAfterFrames;
    std::optional<core::Error> readError;
};

/// A scripted track. Property loads return the values given, or the error given in their place.
struct SyntheticTrack
{
    media::MediaType mediaType = media::MediaType::video;
    core::Expected<float> nominalFrameRate = 25.0F;
    core::Expected<core::MediaTime> minFrameDuration = core::MediaTime::make(1, 25);
    /// What the container would say the track lasts; absent: it does not say. A value beyond the
    /// samples' end plays a truncated file.
    std::optional<core::MediaTime> declaredDuration;
    core::Expected<std::vector<media::FormatDescription>> formatDescriptions =
        std::vector<media::FormatDescription>{};
    core::Expected<bool> canProvideSampleCursors = true;
    /// Samples in decode order.
    std::vector<SyntheticSample> samples;
    ReaderFaults faults;
    /// Called with the decode-order index of the sample a cursor moves to, on the cursor's
    /// thread, each time it moves: for tests that act in the middle of a walk.
    std::function<void(std::int64_t)> onCursorStep;
};

/// Builds a video track of `count` frames at `framesPerSecond` (integer rate, timescale = rate,
/// presentation order = decode order): frame i shows picture(i) and is a sync sample when
/// isSync(i).
SyntheticTrack makeVideoTrack(int framesPerSecond,
                              std::int64_t count,
                              const std::function<Picture(std::int64_t)>& picture,
                              const std::function<bool(std::int64_t)>& isSync);

/// Counts of what the synthetic asset was asked to do, for tests that check costs and lifetimes.
struct SyntheticAssetStatistics
{
    std::int64_t readersMade = 0;
    std::int64_t framesDelivered = 0;
};

/// An in-memory asset made of scripted tracks, for testing the scan without files or FFmpeg.
/// Immutable once built; readers and cursors are independent of each other, so several threads
/// may read at once.
class SyntheticAsset : public media::Asset
{
public:
    SyntheticAsset(core::Expected<core::MediaTime> duration, std::vector<SyntheticTrack> tracks);

    [[nodiscard]] core::Expected<core::MediaTime> duration() const override;
    [[nodiscard]] core::Expected<std::vector<media::TrackPointer>> tracks() const override;
    [[nodiscard]] core::Expected<std::unique_ptr<media::FrameReader>> makeFrameReader(
        const media::Track& track,
        const media::FrameReaderSettings& settings,
        std::stop_token stopToken) const override;

    /// What has been asked of the asset so far (thread-safe).
    [[nodiscard]] SyntheticAssetStatistics statistics() const;

    /// Replaces the asset's track list with a failure.
    void failTrackLoad(core::Error error) { trackLoadError_ = std::move(error); }

private:
    core::Expected<core::MediaTime> duration_;
    std::vector<media::TrackPointer> tracks_;
    std::optional<core::Error> trackLoadError_;
    std::shared_ptr<detail::SyntheticCounters> counters_;
};

/// Opens synthetic assets registered under a path; any other path fails like a missing file.
class SyntheticAssetOpener : public media::AssetOpener
{
public:
    void add(const std::filesystem::path& path, media::AssetPointer asset);

    [[nodiscard]] core::Expected<media::AssetPointer> openAsset(
        const std::filesystem::path& path, std::stop_token stopToken) const override;

private:
    std::map<std::filesystem::path, media::AssetPointer> assets_;
};

}  // namespace kestrin::media_testing
