#pragma once

#include <kestrin/core/error.hpp>
#include <kestrin/core/media_time.hpp>
#include <kestrin/media/format_description.hpp>
#include <kestrin/media/frame_reader.hpp>
#include <kestrin/media/sample_cursor.hpp>

#include <filesystem>
#include <memory>
#include <optional>
#include <stop_token>
#include <vector>

namespace kestrin::media {

/// One track of an asset. Its properties are read from the container when the asset is opened;
/// asking for them costs nothing and reads no file. Immutable: safe to share between threads.
class Track
{
public:
    virtual ~Track() = default;

    /// The track's position among the asset's tracks, from 0, in file order.
    [[nodiscard]] virtual int trackIndex() const = 0;
    [[nodiscard]] virtual MediaType mediaType() const = 0;

    /// Frames per second as the container states it on average; 0 when unknown.
    [[nodiscard]] virtual core::Expected<float> nominalFrameRate() const = 0;

    /// The real duration of one frame (1001/30000 s at 29.97, also where the container rounds its
    /// time stamps to a coarser clock); invalid when the track does not say.
    [[nodiscard]] virtual core::Expected<core::MediaTime> minFrameDuration() const = 0;

    /// How long the container says the track lasts, counted from its first presented frame: what
    /// a reader of the whole track should reach. Absent when the container does not say, or only
    /// guesses (from the bit rate, say).
    [[nodiscard]] virtual std::optional<core::MediaTime> declaredDuration() const = 0;

    /// The track's sample descriptions, usually one.
    [[nodiscard]] virtual core::Expected<std::vector<FormatDescription>> formatDescriptions()
        const = 0;

    /// Whether makeSampleCursorAtFirstSampleInDecodeOrder() can give a cursor for this track.
    [[nodiscard]] virtual core::Expected<bool> canProvideSampleCursors() const = 0;

    /// A cursor on the track's first sample in decode order, or null when the track has no
    /// samples or cannot be walked. Cost: an indexed container (MP4, MOV) gives its sample table
    /// without reading sample data; others are demuxed, packet headers only, as the cursor moves.
    /// A stop request ends a pending read; the cursor then behaves as if the track ended there.
    [[nodiscard]] virtual std::unique_ptr<SampleCursor> makeSampleCursorAtFirstSampleInDecodeOrder(
        std::stop_token stopToken = {}) const = 0;
};

using TrackPointer = std::shared_ptr<const Track>;

/// An opened media file: its duration, its tracks, and readers that decode them. Immutable after
/// opening: safe to share between threads, and every reader it makes has its own file handle, so
/// readers on different threads do not contend.
class Asset
{
public:
    virtual ~Asset() = default;

    /// Duration of the whole asset, exact where the container allows.
    [[nodiscard]] virtual core::Expected<core::MediaTime> duration() const = 0;

    /// Every track in file order.
    [[nodiscard]] virtual core::Expected<std::vector<TrackPointer>> tracks() const = 0;

    /// The tracks of one media type in file order.
    [[nodiscard]] core::Expected<std::vector<TrackPointer>> tracksWithMediaType(
        MediaType type) const;

    /// A reader that decodes `track` (one of this asset's video tracks) as `settings` ask. The
    /// reader is made in the notStarted state; opening the file or the decoder may fail here with
    /// the library's own error. A null reader without an error means the track cannot be read as
    /// pictures at all (it is not a video track of this asset). A stop request through
    /// `stopToken` cancels the reader's reads.
    [[nodiscard]] virtual core::Expected<std::unique_ptr<FrameReader>> makeFrameReader(
        const Track& track,
        const FrameReaderSettings& settings,
        std::stop_token stopToken = {}) const = 0;
};

using AssetPointer = std::shared_ptr<const Asset>;

/// Opens media files. The scan opens files only through this, so tests can hand it synthetic
/// assets instead of files.
class AssetOpener
{
public:
    virtual ~AssetOpener() = default;

    /// Opens the file at `path` and reads its container header and track properties (reads the
    /// header and the index; decodes nothing). Fails with a clear error for a missing, empty,
    /// truncated or unreadable file, or one that is not a media file.
    [[nodiscard]] virtual core::Expected<AssetPointer> openAsset(
        const std::filesystem::path& path, std::stop_token stopToken = {}) const = 0;
};

}  // namespace kestrin::media
