#pragma once

// Internal to the FFmpeg adapter: the pieces shared by the asset, the sample cursor and the frame
// reader. FFmpeg types appear only here and in the adapter's sources.

#include <kestrin/core/error.hpp>
#include <kestrin/core/media_time.hpp>
#include <kestrin/media/format_description.hpp>
#include <kestrin/media/frame_reader.hpp>
#include <kestrin/media/sample_cursor.hpp>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <cstdint>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <stop_token>
#include <vector>

namespace kestrin::media_ffmpeg::detail {

/// FFmpeg's error `code` (an AVERROR value) as domain "FFmpeg", that code and FFmpeg's own text.
core::Error ffmpegError(int code);

// FFmpeg's error macros are old-style casts and expressions; these name the few codes we use.
int errorExit();
int errorEof();
int errorAgain();
int errorStreamNotFound();
int errorDecoderNotFound();
int errorInvalidData();

struct FormatContextDeleter
{
    void operator()(AVFormatContext* context) const;
};
using FormatContextPointer = std::unique_ptr<AVFormatContext, FormatContextDeleter>;

struct PacketDeleter
{
    void operator()(AVPacket* packet) const;
};
using PacketPointer = std::unique_ptr<AVPacket, PacketDeleter>;

/// What the interrupt callback of one format context looks at. Must outlive the context; not
/// moved once the context is open (FFmpeg holds its address).
struct Interrupt
{
    std::stop_token stopToken;
    /// Set by the owner to abandon blocking I/O for reasons of its own (cancelReading).
    bool isAbandoned = false;
};

/// Opens `path` for demuxing; blocking I/O ends when `interrupt` says so. Reads the streams'
/// properties from packets (avformat_find_stream_info) always when `findStreamInfo` is true, and
/// otherwise only for formats without a header, whose streams appear only in their packets.
core::Expected<FormatContextPointer> openInput(const std::filesystem::path& path,
                                               Interrupt& interrupt,
                                               bool findStreamInfo);

/// How the time stamps of one stream become times on the track's timeline (see the opener's
/// description of times).
struct TrackTiming
{
    AVRational timeBase{0, 1};
    /// Stream time stamp of the first presented frame: time 0 on the track's timeline.
    std::int64_t origin = 0;
    /// One frame lasts frameDuration seconds (value/timescale); value 0 when unknown.
    std::int64_t frameDurationValue = 0;
    std::int32_t frameDurationTimescale = 0;
    /// Every frame lasts frameDuration: times are put on the frame grid. False for a variable
    /// frame rate, whose times are kept as the container gives them.
    bool isConstantRate = true;

    [[nodiscard]] bool hasFrameGrid() const { return frameDurationValue > 0 && isConstantRate; }
    /// The time on the track's timeline of stream time stamp `stamp`; invalid for AV_NOPTS_VALUE.
    [[nodiscard]] core::MediaTime timeOf(std::int64_t stamp) const;
    /// The stream time stamp at or before `time` (rounded down).
    [[nodiscard]] std::int64_t stampAtOrBefore(const core::MediaTime& time) const;
    /// One frame's duration; invalid when unknown.
    [[nodiscard]] core::MediaTime frameDuration() const;
    /// The frame index of `time` when it lies on the frame grid; nullopt otherwise.
    [[nodiscard]] std::optional<std::int64_t> frameIndexOf(const core::MediaTime& time) const;
    /// One frame's duration in stream time stamps, rounded, at least 1.
    [[nodiscard]] std::int64_t frameStepInStamps() const;
};

/// One sample of a stream as the index or a packet header gives it.
struct SampleEntry
{
    std::int64_t presentationStamp = 0;  ///< AV_NOPTS_VALUE when unknown
    std::int64_t decodeStamp = 0;        ///< AV_NOPTS_VALUE when unknown
    bool isSync = false;
};

/// What a frame reader decodes with (defined by the reader): the demuxer and decoder of one
/// track, and how far they have got.
struct DecodingSession;
struct DecodingSessionDeleter
{
    void operator()(DecodingSession* session) const;
};
using DecodingSessionPointer = std::unique_ptr<DecodingSession, DecodingSessionDeleter>;

/// The decoding session that the last reader of a track finished with, kept for the next reader
/// of the same track: the windows of a scan come one after another in time order, and the next
/// one can then go on decoding from where the last one stopped instead of opening the file and
/// the decoder again and seeking back. Holds at most one session. Thread-safe.
class DecodingSessionPool
{
public:
    /// The kept session, if any; the pool is then empty.
    [[nodiscard]] DecodingSessionPointer take();
    /// Keeps `session`, dropping any session kept before (the newer is further on).
    void give(DecodingSessionPointer session);

private:
    std::mutex mutex_;
    DecodingSessionPointer idle_;  // guarded by mutex_
};

/// Everything a cursor or reader needs to know about a track; immutable after opening, shared.
struct TrackSource
{
    std::filesystem::path path;
    int streamIndex = 0;
    media::MediaType mediaType = media::MediaType::unknown;
    TrackTiming timing;
    /// The complete sample table in decode order when the container's index holds it with
    /// presentation times; null when cursors must demux packets.
    std::shared_ptr<const std::vector<SampleEntry>> index;
    /// The container keeps only the decode order of a codec that reorders pictures (AVI, MXF
    /// without temporal offsets): presentation times come from the pictures themselves
    /// (PresentationOrder), and the packets' own presentation stamps are ignored.
    bool hasDecodeOrderOnly = false;
    /// Where the track's readers hand their sessions on; the pool itself is not immutable.
    std::shared_ptr<DecodingSessionPool> sessions = std::make_shared<DecodingSessionPool>();
};

/// A cursor on the first sample in decode order; null when the track has no samples (or the file
/// cannot be read again).
std::unique_ptr<media::SampleCursor> makeSampleCursor(std::shared_ptr<const TrackSource> source,
                                                      std::stop_token stopToken);

/// A reader in the notStarted state, with the file and the decoder open.
core::Expected<std::unique_ptr<media::FrameReader>> makeFrameReader(
    std::shared_ptr<const TrackSource> source,
    const media::FrameReaderSettings& settings,
    std::stop_token stopToken);

}  // namespace kestrin::media_ffmpeg::detail
