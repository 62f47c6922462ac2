#pragma once

// Internal to the FFmpeg adapter: presentation times for a stream whose container keeps only the
// decode order (AVI, and MXF without temporal offsets), taken from the pictures themselves.
//
// The k-th picture in presentation order is given the decode stamp of the k-th picture in decode
// order. Where pictures are decoded one frame interval apart, that is the time each is shown at
// (the first decoded picture, a keyframe, is also the first shown); the frame reader and the
// sample cursor both stamp this way, so they agree on every sample.
//
// Worked example, two B-frames between anchors (classic MPEG order), decode stamps 0..6:
//
//   decode order    I0  P1  B2  B3  P4  B5  B6
//   shown at         0   3   1   2   6   4   5
//
// An anchor (I or P) is shown after the B-frames that follow it in decode order; with H.264 and
// HEVC the picture order count gives the order within a group, which also places B-frames that
// other B-frames refer to.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace kestrin::media_ffmpeg::detail {

/// What the presentation order needs to know of one picture, in decode order.
struct PictureInOrder
{
    /// The container's decode stamp; nullopt when the packet has none (then the last one plus the
    /// stamper's frame step is used).
    std::optional<std::int64_t> decodeStamp;
    /// A B-frame: shown before the anchor decoded just ahead of it.
    bool isBidirectional = false;
    /// The picture order count, where the codec has one (H.264, HEVC).
    std::optional<int> pictureOrderCount;
    /// A keyframe from which no later picture refers back (IDR): a new group of pictures whose
    /// order counts start again.
    bool startsClosedGroup = false;
};

/// Turns pictures in decode order into their presentation stamps, in decode order, as soon as
/// each is known (after at most a group of pictures, or kReorderWindow pictures, more). Used by one
/// thread.
class PresentationOrder
{
public:
    /// How far after a picture in decode order another picture may still be shown before it.
    /// Far more than any codec's reordering depth (H.264 allows 16 frames).
    static constexpr std::size_t kReorderWindow = 32;

    /// `frameStep`: the decode stamp distance of one frame, for pictures that come without one.
    explicit PresentationOrder(std::int64_t frameStep);

    /// The next picture in decode order.
    void push(const PictureInOrder& picture);
    /// No picture follows (end of the stream): every picture pushed becomes known.
    void finish();
    /// Forgets every picture (after a seek); the next picture pushed is the first again.
    void reset();

    /// The presentation stamp of the oldest picture not yet returned, in decode order; nullopt
    /// while it is not known yet (push more, or finish).
    std::optional<std::int64_t> next();

private:
    void closeGroup(std::size_t end);
    void placeInGroup(std::size_t index, std::size_t end);

    std::int64_t frameStep_;
    // Everything below: since the last reset, indexed by decode position from 0.
    std::vector<std::int64_t> decodeStamps_;
    std::vector<std::optional<std::size_t>> positions_;
    std::vector<std::optional<int>> orderCounts_;
    std::size_t nextOut_ = 0;
    bool isFinished_ = false;
    bool hasKnownStamp_ = false;
    // Picture order counts: the open group starts here.
    std::size_t groupStart_ = 0;
    // Classic order: the anchor still waiting for the next anchor, and the positions handed out.
    std::optional<std::size_t> pendingAnchor_;
    std::size_t nextPosition_ = 0;
};

/// Reads the picture type and picture order count of each packet of a stream with FFmpeg's
/// parser for its codec, without decoding. Used by one thread.
class PictureParser
{
public:
    explicit PictureParser(const AVCodecParameters& parameters);
    ~PictureParser();
    PictureParser(const PictureParser&) = delete;
    PictureParser& operator=(const PictureParser&) = delete;

    /// What `packet` (one whole picture) holds; a picture that cannot be parsed counts as an
    /// anchor without an order count.
    PictureInOrder describe(const AVPacket& packet);

private:
    AVCodecContext* context_ = nullptr;
    AVCodecParserContext* parser_ = nullptr;
    bool hasOrderCounts_ = false;
};

}  // namespace kestrin::media_ffmpeg::detail
