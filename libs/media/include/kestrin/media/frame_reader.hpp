#pragma once

#include <kestrin/core/error.hpp>
#include <kestrin/core/media_time.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace kestrin::media {

/// The range of the luma samples a reader delivers: full (0-255) or video (16-235).
enum class LumaRange : std::uint8_t { full, video };

/// The video-range value of a full-range luma value: 16 + 219 x value / 255, rounded to nearest.
/// Every reader makes its video-range planes with exactly this mapping from the full-range plane
/// of the same frame, so a caller holding one can compute the other without decoding again.
[[nodiscard]] constexpr std::uint8_t videoRangeLuma(std::uint8_t fullRangeLuma)
{
    return static_cast<std::uint8_t>(16 + (fullRangeLuma * 219 + 127) / 255);
}

/// What a frame reader delivers and from which stretch of the track.
struct FrameReaderSettings
{
    /// Size of the delivered luma plane in pixels; the reader scales each picture to it with an
    /// area filter. Both at least 1.
    int width = 96;
    int height = 54;
    LumaRange range = LumaRange::full;
    /// Only frames whose display interval overlaps [start, start + duration); absent: all.
    std::optional<core::MediaTimeRange> timeRange;
    /// With a time range: also deliver, marked LumaFrame::isLeadIn and before the range's frames,
    /// the frames shown before the range that reaching it decodes anyway (from the sync sample a
    /// seek lands on, or from where the track's previous reader stopped). Frames that no other
    /// frame refers to are not decoded there, so these may skip some frames.
    bool deliversLeadIn = false;
};

/// One decoded frame's 8-bit luma plane. A view: the bytes belong to the reader and stay valid
/// only until the next call on it.
struct LumaFrame
{
    /// Presentation time on the track's timeline, where the first presented frame is at 0.
    core::MediaTime presentationTime;
    int width = 0;
    int height = 0;
    /// Distance between the starts of two rows, at least `width`.
    std::ptrdiff_t bytesPerRow = 0;
    /// The first row; null for a sample that carries no picture.
    const std::uint8_t* data = nullptr;
    /// How long the frame is shown, as the reader counts it when it decides which frames overlap
    /// a time range (a frame overlaps when it starts before the range ends and
    /// presentationTime + duration lies after the range's start); zero when unknown.
    core::MediaTime duration = core::MediaTime::zero();
    /// Shown before the reader's time range, delivered because the settings asked for the lead-in.
    bool isLeadIn = false;
    /// The decoder reported damage in this picture: it concealed errors in the data or decoded it
    /// without a picture it refers to. The plane is still the decoder's best picture.
    bool isDamaged = false;

    [[nodiscard]] bool hasImage() const { return data != nullptr; }
};

/// Where a reader is in its life.
enum class ReaderStatus : std::uint8_t {
    notStarted,  ///< made, startReading() not yet called
    reading,     ///< frames may follow
    completed,   ///< every frame of the track or range was delivered
    failed,      ///< a demuxing or decoding error ended the read; error() says which
    cancelled,   ///< cancelReading() or a stop request ended the read
};

/// Decodes one video track, frame by frame in presentation order, into luma planes of the size
/// and range its settings ask for. Made by Asset::makeFrameReader; used by one thread; decoding
/// may use several threads of its own.
class FrameReader
{
public:
    virtual ~FrameReader() = default;

    /// Begins reading (for a time range: seeks to the sync sample before its start). Returns
    /// false when reading cannot begin; status() is then failed and error() holds the reason when
    /// one is known. Calling it on a reader that is not notStarted returns false and changes
    /// nothing.
    virtual bool startReading() = 0;

    [[nodiscard]] virtual ReaderStatus status() const = 0;

    /// The error that made the reader fail, with the decoder's or the file system's own code and
    /// text; absent unless status() is failed, and possibly absent then.
    [[nodiscard]] virtual std::optional<core::Error> error() const = 0;

    /// The presentation times of the samples the decoder refused as damaged so far, in the order
    /// met (an invalid time where the sample's is unknown). A refused sample is passed over and
    /// the read goes on, so its frame is missing from what the reader delivers; a read that
    /// delivers no frame at all because every sample was refused fails with the decoder's error.
    [[nodiscard]] virtual std::vector<core::MediaTime> refusedSampleTimes() const = 0;

    /// Decodes up to the next frame and returns it; absent when there is none: status() then says
    /// whether the read completed, failed or was cancelled. A stop request (the stop token the
    /// reader was made with) ends a read within one frame, blocking file I/O included.
    virtual std::optional<LumaFrame> nextFrame() = 0;

    /// Stops reading for good: status() becomes cancelled (unless already completed or failed)
    /// and nextFrame() returns nothing from then on.
    virtual void cancelReading() = 0;
};

}  // namespace kestrin::media
