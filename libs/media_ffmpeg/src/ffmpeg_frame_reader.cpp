#include "ffmpeg_support.hpp"
#include "luma_box_average.hpp"
#include "presentation_order.hpp"

extern "C" {
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <array>
#include <deque>
#include <optional>
#include <utility>
#include <vector>

namespace kestrin::media_ffmpeg::detail {

namespace {

struct CodecContextDeleter
{
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
using CodecContextPointer = std::unique_ptr<AVCodecContext, CodecContextDeleter>;

struct FrameDeleter
{
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
using FramePointer = std::unique_ptr<AVFrame, FrameDeleter>;

struct ScaleContextDeleter
{
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};
using ScaleContextPointer = std::unique_ptr<SwsContext, ScaleContextDeleter>;

// How often a seek that landed after the start of a range is retried further back before the
// read starts from the beginning of the file.
constexpr int kSeekRetries = 4;

}  // namespace

struct DecodingSession
{
    Interrupt interrupt;  // must outlive format; the session never moves
    FormatContextPointer format;
    AVStream* stream = nullptr;
    CodecContextPointer decoder;
    PacketPointer packet;
    FramePointer frame;
    /// The frame delivered (or passed over) before `frame`, kept to be shown again where the
    /// stream leaves frames out (Theora writes a repeated picture as an empty packet).
    FramePointer previous;
    /// The frame index of `previous` on the frame grid; nullopt when unknown or off the grid.
    std::optional<std::int64_t> previousIndex;
    /// Only where the container keeps the decode order alone: the packets read but not yet sent,
    /// in decode order, until their presentation stamps are known.
    std::optional<PictureParser> parser;
    std::optional<PresentationOrder> order;
    std::deque<PacketPointer> held;
    bool isOrderFinished = false;
    /// After a seek: packets are passed over until a keyframe, since a seek by time stamp may
    /// land inside a group of pictures (MPEG program streams), whose frames would decode against
    /// missing references.
    bool isAwaitingKeyframe = false;
    ScaleContextPointer scale;
    std::vector<std::uint16_t> rowSums;  // scratch of the box average
    std::vector<std::uint8_t> plane;
    /// The end of the file was handed to the decoder: it can only be drained now.
    bool isInputDone = false;
    /// Decode stamp of the last packet handed to the decoder; AV_NOPTS_VALUE before the first.
    std::int64_t lastSentDecodeStamp = AV_NOPTS_VALUE;
    /// Where the last frame taken from the decoder stops being shown; invalid before the first.
    core::MediaTime lastFrameEnd = core::MediaTime::invalid();
};

void DecodingSessionDeleter::operator()(DecodingSession* session) const
{
    delete session;  // NOLINT(cppcoreguidelines-owning-memory): the deleter of a unique_ptr
}

DecodingSessionPointer DecodingSessionPool::take()
{
    const std::scoped_lock lock(mutex_);
    return std::move(idle_);
}

void DecodingSessionPool::give(DecodingSessionPointer session)
{
    DecodingSessionPointer dropped;
    {
        const std::scoped_lock lock(mutex_);
        dropped = std::exchange(idle_, std::move(session));
    }
    // `dropped` closes its file and decoder here, outside the lock.
}

namespace {

// The full-range form of a full-range-only ("J") format, and whether it was one.
std::pair<AVPixelFormat, bool> withoutJpegRange(AVPixelFormat format)
{
    switch (format) {
        case AV_PIX_FMT_YUVJ420P:
            return {AV_PIX_FMT_YUV420P, true};
        case AV_PIX_FMT_YUVJ422P:
            return {AV_PIX_FMT_YUV422P, true};
        case AV_PIX_FMT_YUVJ444P:
            return {AV_PIX_FMT_YUV444P, true};
        case AV_PIX_FMT_YUVJ440P:
            return {AV_PIX_FMT_YUV440P, true};
        case AV_PIX_FMT_YUVJ411P:
            return {AV_PIX_FMT_YUV411P, true};
        default:
            return {format, false};
    }
}

bool isGray(AVPixelFormat format)
{
    const AVPixFmtDescriptor* descriptor = av_pix_fmt_desc_get(format);
    return descriptor != nullptr && descriptor->nb_components <= 2
           && (descriptor->flags & AV_PIX_FMT_FLAG_RGB) == 0;
}

// Formats whose plane 0 is the 8-bit luma plane, one byte per pixel.
bool hasEightBitLumaPlane(AVPixelFormat format)
{
    switch (format) {
        case AV_PIX_FMT_YUV420P:
        case AV_PIX_FMT_YUV422P:
        case AV_PIX_FMT_YUV444P:
        case AV_PIX_FMT_YUV440P:
        case AV_PIX_FMT_YUV411P:
        case AV_PIX_FMT_YUV410P:
        case AV_PIX_FMT_YUVA420P:
        case AV_PIX_FMT_NV12:
        case AV_PIX_FMT_NV21:
        case AV_PIX_FMT_NV16:
        case AV_PIX_FMT_NV24:
        case AV_PIX_FMT_NV42:
        case AV_PIX_FMT_GRAY8:
            return true;
        default:
            return false;
    }
}

// Full-range luma 0..255 to video range 16..235, as a table.
std::array<std::uint8_t, 256> makeVideoRangeTable()
{
    std::array<std::uint8_t, 256> table{};
    for (std::size_t value = 0; value < table.size(); ++value) {
        table[value] = media::videoRangeLuma(static_cast<std::uint8_t>(value));
    }
    return table;
}

// Decoding errors in a row, without the decoder asking for input, after which a read fails.
constexpr int kMaxErrorsWithoutInput = 64;

class FFmpegFrameReader final : public media::FrameReader
{
public:
    FFmpegFrameReader(std::shared_ptr<const TrackSource> source,
                      const media::FrameReaderSettings& settings,
                      std::stop_token stopToken)
        : source_(std::move(source))
        , settings_(settings)
        , stopToken_(std::move(stopToken))
    {}

    FFmpegFrameReader(const FFmpegFrameReader&) = delete;
    FFmpegFrameReader& operator=(const FFmpegFrameReader&) = delete;

    // Hands the session on to the track's next reader when it can go on from where this one
    // stopped: not after a failure, a stop request or the end of the file, nor when the file's
    // I/O may have been cut off half-way.
    ~FFmpegFrameReader() override
    {
        const bool isHealthy = status_ == media::ReaderStatus::reading
                               || status_ == media::ReaderStatus::completed
                               || status_ == media::ReaderStatus::cancelled;
        if (session_ && session_->decoder && isHealthy && !session_->isInputDone
            && !stopToken_.stop_requested()) {
            source_->sessions->give(std::move(session_));
        }
    }

    /// Opens the file and the decoder, or takes over the session a reader of the same track
    /// finished with; the error when opening fails.
    std::optional<core::Error> open()
    {
        if (settings_.width < 1 || settings_.height < 1) {
            return ffmpegError(AVERROR(EINVAL));
        }
        // Only a reader that seeks can use a session that is somewhere in the file.
        if (settings_.timeRange && settings_.timeRange->start > core::MediaTime::zero()) {
            session_ = source_->sessions->take();
        }
        if (session_) {
            session_->interrupt.stopToken = stopToken_;
            session_->interrupt.isAbandoned = false;
            return std::nullopt;
        }
        session_.reset(new DecodingSession);  // NOLINT(cppcoreguidelines-owning-memory)
        session_->interrupt.stopToken = stopToken_;
        auto opened = openInput(source_->path, session_->interrupt, false);
        if (!opened) {
            return opened.error();
        }
        session_->format = std::move(*opened);
        if (source_->streamIndex >= static_cast<int>(session_->format->nb_streams)) {
            return ffmpegError(errorStreamNotFound());
        }
        session_->stream = session_->format->streams[source_->streamIndex];
        if (session_->stream->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) {
            return ffmpegError(errorStreamNotFound());
        }
        for (unsigned int i = 0; i < session_->format->nb_streams; ++i) {
            session_->format->streams[i]->discard = session_->format->streams[i] == session_->stream
                                                        ? AVDISCARD_DEFAULT
                                                        : AVDISCARD_ALL;
        }
        const AVCodec* codec = avcodec_find_decoder(session_->stream->codecpar->codec_id);
        if (codec == nullptr) {
            return ffmpegError(errorDecoderNotFound());
        }
        session_->decoder.reset(avcodec_alloc_context3(codec));
        session_->packet.reset(av_packet_alloc());
        session_->frame.reset(av_frame_alloc());
        session_->previous.reset(av_frame_alloc());
        if (source_->hasDecodeOrderOnly) {
            session_->parser.emplace(*session_->stream->codecpar);
            session_->order.emplace(source_->timing.frameStepInStamps());
        }
        if (!session_->decoder || !session_->packet || !session_->frame || !session_->previous) {
            return ffmpegError(AVERROR(ENOMEM));
        }
        int result =
            avcodec_parameters_to_context(session_->decoder.get(), session_->stream->codecpar);
        if (result < 0) {
            return ffmpegError(result);
        }
        session_->decoder->pkt_timebase = session_->stream->time_base;
        // The decoder's own threads, as many as there are cores, across frames and within them.
        session_->decoder->thread_count = 0;
        session_->decoder->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
        result = avcodec_open2(session_->decoder.get(), codec, nullptr);
        if (result < 0) {
            return ffmpegError(result);
        }
        return std::nullopt;
    }

    bool startReading() override
    {
        if (status_ != media::ReaderStatus::notStarted) {
            return false;
        }
        status_ = media::ReaderStatus::reading;
        if (settings_.timeRange) {
            rangeStart_ = settings_.timeRange->start;
            rangeEnd_ = settings_.timeRange->end();
            seekStamp_ = source_->timing.stampAtOrBefore(rangeStart_);
            if (rangeStart_ > core::MediaTime::zero() && !canGoOnTo(seekStamp_)) {
                if (!seekTo(seekStamp_)) {
                    return false;
                }
                isCheckingSeek_ = true;
            }
        }
        return true;
    }

    [[nodiscard]] media::ReaderStatus status() const override { return status_; }
    [[nodiscard]] std::optional<core::Error> error() const override
    {
        return status_ == media::ReaderStatus::failed ? error_ : std::nullopt;
    }

    [[nodiscard]] std::vector<core::MediaTime> refusedSampleTimes() const override
    {
        return refused_;
    }

    std::optional<media::LumaFrame> nextFrame() override
    {
        while (status_ == media::ReaderStatus::reading) {
            if (session_->interrupt.stopToken.stop_requested()) {
                status_ = media::ReaderStatus::cancelled;
                break;
            }
            if (repeatsLeft_ > 0) {
                auto repeated = takeRepeat();
                if (repeated) {
                    return repeated;
                }
                continue;
            }
            if (isHoldingFrame_) {
                isHoldingFrame_ = false;
                auto delivered = takeFrame(heldTime_);
                if (delivered) {
                    return delivered;
                }
                continue;
            }
            const int received =
                avcodec_receive_frame(session_->decoder.get(), session_->frame.get());
            if (received == errorAgain()) {
                errorsSinceInput_ = 0;
                feedDecoder();
                continue;
            }
            if (received == errorEof()) {
                completeAtEnd();
                break;
            }
            if (received < 0) {
                // A decoder that keeps failing without asking for input would never end.
                if (++errorsSinceInput_ > kMaxErrorsWithoutInput) {
                    fail(received);
                    break;
                }
                refuseOrFail(received, AV_NOPTS_VALUE);
                continue;
            }
            hasDecoded_ = true;
            auto delivered = placeFrame();
            if (delivered) {
                return delivered;
            }
        }
        return std::nullopt;
    }

    void cancelReading() override
    {
        if (status_ == media::ReaderStatus::notStarted || status_ == media::ReaderStatus::reading) {
            status_ = media::ReaderStatus::cancelled;
        }
        session_->interrupt.isAbandoned = true;
    }

private:
    // Whether decoding on from where the session is gives the frames from `stamp` on without
    // decoding more than a seek would: the session has not yet taken a frame shown at or after
    // the range's start, and it has already sent the sync sample a seek to `stamp` would land on.
    // Known only from the container's index; without one, readers always seek.
    [[nodiscard]] bool canGoOnTo(std::int64_t stamp) const
    {
        if (!source_->index || session_->lastSentDecodeStamp == AV_NOPTS_VALUE
            || !session_->lastFrameEnd.isNumeric() || session_->lastFrameEnd > rangeStart_) {
            return false;
        }
        std::int64_t syncDecodeStamp = AV_NOPTS_VALUE;
        for (const SampleEntry& sample : *source_->index) {
            if (sample.isSync && sample.presentationStamp != AV_NOPTS_VALUE
                && sample.presentationStamp <= stamp) {
                syncDecodeStamp = sample.decodeStamp;
            }
        }
        return syncDecodeStamp != AV_NOPTS_VALUE
               && syncDecodeStamp <= session_->lastSentDecodeStamp;
    }

    // The decoder's failure on one sample: a damaged sample is passed over and noted, so that
    // one bad packet does not end the read (as FFmpeg's own tools go on); running out of memory,
    // an interrupted read or a misused decoder ends it.
    void refuseOrFail(int code, std::int64_t stamp)
    {
        if (code == AVERROR(ENOMEM) || code == AVERROR(EINVAL) || code == errorExit()) {
            fail(code);
            return;
        }
        if (!firstRefusal_) {
            firstRefusal_ = code;
        }
        refused_.push_back(stamp == AV_NOPTS_VALUE ? core::MediaTime::invalid()
                                                   : source_->timing.timeOf(stamp));
    }

    // The input has ended: a read that decoded nothing because the decoder refused every
    // sample has failed, with the decoder's reason.
    void completeAtEnd()
    {
        if (!hasDecoded_ && firstRefusal_) {
            status_ = media::ReaderStatus::failed;
            error_ = ffmpegError(*firstRefusal_);
            return;
        }
        status_ = media::ReaderStatus::completed;
    }

    void fail(int code)
    {
        if (code == errorExit() && session_->interrupt.stopToken.stop_requested()) {
            status_ = media::ReaderStatus::cancelled;
            return;
        }
        status_ = media::ReaderStatus::failed;
        error_ = ffmpegError(code);
    }

    bool seekTo(std::int64_t stamp)
    {
        const int result = avformat_seek_file(session_->format.get(),
                                              session_->stream->index,
                                              std::numeric_limits<std::int64_t>::min(),
                                              stamp,
                                              stamp,
                                              0);
        if (result < 0) {
            // Unseekable input: read from where the file starts and drop what lies before.
            if (result == errorExit()) {
                fail(result);
                return false;
            }
        }
        avcodec_flush_buffers(session_->decoder.get());
        session_->isInputDone = false;
        session_->held.clear();
        session_->isOrderFinished = false;
        session_->isAwaitingKeyframe = true;
        if (session_->order) {
            session_->order->reset();
        }
        av_frame_unref(session_->previous.get());
        session_->previousIndex.reset();
        repeatsLeft_ = 0;
        isHoldingFrame_ = false;
        session_->lastSentDecodeStamp = AV_NOPTS_VALUE;
        session_->lastFrameEnd = core::MediaTime::invalid();
        return true;
    }

    // Reads the next packet of the track and hands it to the decoder (or, at the end of the
    // file, tells the decoder to give out what it holds). Where the container keeps the decode
    // order alone, packets wait until their presentation stamps are known.
    void feedDecoder()
    {
        if (session_->isInputDone) {
            // The decoder wants input after being drained: nothing more will come.
            completeAtEnd();
            return;
        }
        for (;;) {
            if (session_->order && !session_->held.empty()) {
                if (const auto stamp = session_->order->next()) {
                    PacketPointer ready = std::move(session_->held.front());
                    session_->held.pop_front();
                    ready->pts = *stamp;
                    sendPacket(*ready);
                    return;
                }
            }
            if (session_->isOrderFinished) {
                endInput();
                return;
            }
            const int read = av_read_frame(session_->format.get(), session_->packet.get());
            if (read == errorEof()) {
                if (session_->order) {
                    session_->order->finish();
                    session_->isOrderFinished = true;
                    continue;
                }
                endInput();
                return;
            }
            if (read < 0) {
                fail(read);
                return;
            }
            if (session_->packet->stream_index != session_->stream->index
                || (session_->isAwaitingKeyframe
                    && (session_->packet->flags & AV_PKT_FLAG_KEY) == 0)) {
                av_packet_unref(session_->packet.get());
                continue;
            }
            session_->isAwaitingKeyframe = false;
            if (!session_->order) {
                sendPacket(*session_->packet);
                return;
            }
            session_->order->push(session_->parser->describe(*session_->packet));
            PacketPointer held(av_packet_alloc());
            if (!held) {
                fail(AVERROR(ENOMEM));
                return;
            }
            av_packet_move_ref(held.get(), session_->packet.get());
            session_->held.push_back(std::move(held));
        }
    }

    void endInput()
    {
        session_->isInputDone = true;
        const int sent = avcodec_send_packet(session_->decoder.get(), nullptr);
        if (sent < 0 && sent != errorEof()) {
            fail(sent);
        }
    }

    // Hands `packet` to the decoder and empties it.
    void sendPacket(AVPacket& packet)
    {
        if (settings_.timeRange) {
            // Frames shown before the range are decoded only as far as later frames need
            // them: those no other frame refers to are skipped, which after a seek is much of
            // the lead-in from the sync sample (every non-reference B-frame, for one).
            session_->decoder->skip_frame =
                isShownBeforeRange(packet) ? AVDISCARD_NONREF : AVDISCARD_DEFAULT;
        }
        const std::int64_t decodeStamp = packet.dts;
        const std::int64_t presentationStamp = packet.pts;
        const int sent = avcodec_send_packet(session_->decoder.get(), &packet);
        av_packet_unref(&packet);
        if (sent < 0 && sent != errorAgain()) {
            refuseOrFail(sent, presentationStamp);
        } else if (sent >= 0 && decodeStamp != AV_NOPTS_VALUE) {
            session_->lastSentDecodeStamp = decodeStamp;
        }
    }

    // Places the frame just decoded on the timeline: where frames before it are missing from the
    // stream (on a constant frame grid), the frame before it is shown again at their times first.
    std::optional<media::LumaFrame> placeFrame()
    {
        const std::int64_t stamp =
            source_->hasDecodeOrderOnly || session_->frame->pts != AV_NOPTS_VALUE
                ? session_->frame->pts
                : session_->frame->best_effort_timestamp;
        const core::MediaTime time = source_->timing.timeOf(stamp);
        const auto index = source_->timing.frameIndexOf(time);
        if (index && session_->previousIndex && *index > *session_->previousIndex + 1
            && session_->previous->buf[0] != nullptr) {
            repeatsLeft_ = *index - *session_->previousIndex - 1;
            isHoldingFrame_ = true;
            heldTime_ = time;
            return std::nullopt;
        }
        return takeFrame(time);
    }

    // The next repetition of the previous frame, or nothing when it falls outside the range.
    std::optional<media::LumaFrame> takeRepeat()
    {
        --repeatsLeft_;
        const std::int64_t index = ++*session_->previousIndex;
        const core::MediaTime duration = source_->timing.frameDuration();
        const core::MediaTime time =
            core::MediaTime::make(index * duration.value, duration.timescale);
        if (settings_.timeRange) {
            if (time >= rangeEnd_) {
                // The frame after the gap is taken as passed over, so that a reader going on
                // from here neither misses nor repeats it.
                repeatsLeft_ = 0;
                isHoldingFrame_ = false;
                session_->lastFrameEnd = heldTime_ + durationOfFrame();
                keepAsPrevious(heldTime_);
                status_ = media::ReaderStatus::completed;
                return std::nullopt;
            }
            if (!(time + duration > rangeStart_)) {
                return std::nullopt;
            }
        }
        return convert(*session_->previous, time);
    }

    // Keeps the frame just taken as the one to show again, after the frame delivered before it
    // is no longer needed.
    void keepAsPrevious(const core::MediaTime& time)
    {
        av_frame_unref(session_->previous.get());
        av_frame_move_ref(session_->previous.get(), session_->frame.get());
        session_->previousIndex = source_->timing.frameIndexOf(time);
    }

    // Turns the decoded frame into the frame to deliver, or drops it (before the range, or the
    // range has ended); absent when dropped.
    std::optional<media::LumaFrame> takeFrame(const core::MediaTime& time)
    {
        session_->lastFrameEnd = time + durationOfFrame();
        if (settings_.timeRange && time.isNumeric()) {
            if (isCheckingSeek_) {
                isCheckingSeek_ = false;
                // The seek landed on a sync sample presented after the range starts (the index
                // holds decode times, or the container seeks coarsely): go further back.
                if (time > rangeStart_ && seekStamp_ > source_->timing.origin) {
                    av_frame_unref(session_->frame.get());
                    retreat();
                    return std::nullopt;
                }
            }
            if (time >= rangeEnd_) {
                av_frame_unref(session_->frame.get());
                status_ = media::ReaderStatus::completed;
                return std::nullopt;
            }
            if (!(time + durationOfFrame() > rangeStart_)) {
                if (settings_.deliversLeadIn) {
                    std::optional<media::LumaFrame> leadIn = convert(*session_->frame, time);
                    keepAsPrevious(time);
                    if (leadIn) {
                        leadIn->isLeadIn = true;
                    }
                    return leadIn;
                }
                keepAsPrevious(time);
                return std::nullopt;
            }
        }
        auto delivered = convert(*session_->frame, time);
        keepAsPrevious(time);
        return delivered;
    }

    void retreat()
    {
        ++seekRetries_;
        if (seekRetries_ > kSeekRetries) {
            seekStamp_ = source_->timing.origin;
            seekTo(seekStamp_);
            return;
        }
        const std::int64_t second = av_rescale_q(1, AVRational{1, 1}, session_->stream->time_base);
        seekStamp_ = std::max(source_->timing.origin,
                              seekStamp_ - second * (std::int64_t{1} << seekRetries_));
        if (seekTo(seekStamp_)) {
            isCheckingSeek_ = true;
        }
    }

    // Whether the frame in `packet` is shown wholly before the range starts (false when its time
    // is unknown).
    [[nodiscard]] bool isShownBeforeRange(const AVPacket& packet) const
    {
        if (packet.pts == AV_NOPTS_VALUE) {
            return false;
        }
        const core::MediaTime time = source_->timing.timeOf(packet.pts);
        core::MediaTime duration = source_->timing.frameDuration();
        if (!duration.isNumeric()) {
            duration = packet.duration > 0 ? core::MediaTime::make(
                           packet.duration * session_->stream->time_base.num,
                           session_->stream->time_base.den)
                                           : core::MediaTime::zero();
        }
        return time.isNumeric() && !(time + duration > rangeStart_);
    }

    // On a variable frame rate, the frame's own duration where the container gives one.
    [[nodiscard]] core::MediaTime durationOfFrame() const
    {
        if (source_->timing.hasFrameGrid()) {
            return source_->timing.frameDuration();
        }
        if (session_->frame->pkt_duration > 0) {
            return core::MediaTime::make(
                session_->frame->pkt_duration * session_->stream->time_base.num,
                session_->stream->time_base.den);
        }
        const core::MediaTime average = source_->timing.frameDuration();
        return average.isNumeric() ? average : core::MediaTime::zero();
    }

    std::optional<media::LumaFrame> convert(const AVFrame& picture, const core::MediaTime& time)
    {
        media::LumaFrame out;
        out.presentationTime = time;
        out.duration = durationOfFrame();
        out.isDamaged =
            picture.decode_error_flags != 0 || (picture.flags & AV_FRAME_FLAG_CORRUPT) != 0;
        out.width = settings_.width;
        out.height = settings_.height;
        const auto decoded = static_cast<AVPixelFormat>(picture.format);
        const auto [format, isJpegFormat] = withoutJpegRange(decoded);
        const bool isFullRange =
            isJpegFormat || picture.color_range == AVCOL_RANGE_JPEG
            || (isGray(format) && picture.color_range == AVCOL_RANGE_UNSPECIFIED);
        const bool wantsFullRange = settings_.range == media::LumaRange::full;

        // Video range is always made from the full-range plane (see below), even from a source
        // in video range, so that it is the same function of the picture as for every reader.
        if (hasEightBitLumaPlane(format) && picture.width == settings_.width
            && picture.height == settings_.height && picture.linesize[0] > 0 && isFullRange
            && wantsFullRange) {
            out.data = picture.data[0];
            out.bytesPerRow = picture.linesize[0];
            return out;
        }

        session_->plane.resize(static_cast<std::size_t>(settings_.width)
                               * static_cast<std::size_t>(settings_.height));
        // Scaling 8-bit luma down by whole factors (the scan's case, every frame): our own block
        // average, exact and several times faster than libswscale on a freshly decoded picture.
        if (hasEightBitLumaPlane(format) && picture.linesize[0] > 0
            && canBoxAverage(picture.width, picture.height, settings_.width, settings_.height)) {
            boxAverageLuma(picture.data[0],
                           picture.linesize[0],
                           picture.width,
                           picture.height,
                           isFullRange ? LumaSourceRange::full : LumaSourceRange::video,
                           settings_.width,
                           settings_.height,
                           session_->plane,
                           session_->rowSums);
            return withRangeApplied(out);
        }

        session_->scale.reset(sws_getCachedContext(session_->scale.release(),
                                                   picture.width,
                                                   picture.height,
                                                   format,
                                                   settings_.width,
                                                   settings_.height,
                                                   AV_PIX_FMT_GRAY8,
                                                   SWS_AREA,
                                                   nullptr,
                                                   nullptr,
                                                   nullptr));
        if (!session_->scale) {
            fail(AVERROR(EINVAL));
            return std::nullopt;
        }
        // Always to full range, whatever the source's depth and range; video range is then made
        // from it with one table, so both ranges come out of the same conversion.
        const int* coefficients = sws_getCoefficients(SWS_CS_DEFAULT);
        sws_setColorspaceDetails(session_->scale.get(),
                                 coefficients,
                                 isFullRange ? 1 : 0,
                                 coefficients,
                                 1,
                                 0,
                                 1 << 16,
                                 1 << 16);
        std::array<std::uint8_t*, 4> destination{session_->plane.data(), nullptr, nullptr, nullptr};
        std::array<int, 4> destinationStride{settings_.width, 0, 0, 0};
        const int rows = sws_scale(session_->scale.get(),
                                   picture.data,
                                   picture.linesize,
                                   0,
                                   picture.height,
                                   destination.data(),
                                   destinationStride.data());
        if (rows <= 0) {
            fail(rows < 0 ? rows : errorInvalidData());
            return std::nullopt;
        }
        return withRangeApplied(out);
    }

    // `out` pointing at the full-range plane just made, turned into video range when asked for.
    media::LumaFrame withRangeApplied(media::LumaFrame out)
    {
        if (settings_.range == media::LumaRange::video) {
            static const std::array<std::uint8_t, 256> kVideoRange = makeVideoRangeTable();
            for (std::uint8_t& value : session_->plane) {
                value = kVideoRange[value];
            }
        }
        out.data = session_->plane.data();
        out.bytesPerRow = settings_.width;
        return out;
    }

    std::shared_ptr<const TrackSource> source_;
    media::FrameReaderSettings settings_;
    // Everything below belongs to the thread using the reader.
    std::stop_token stopToken_;
    DecodingSessionPointer session_;
    media::ReaderStatus status_ = media::ReaderStatus::notStarted;
    std::optional<core::Error> error_;
    core::MediaTime rangeStart_;
    core::MediaTime rangeEnd_;
    std::int64_t seekStamp_ = 0;
    int seekRetries_ = 0;
    bool isCheckingSeek_ = false;
    // Frames missing from the stream still to be filled with the previous frame, and whether the
    // frame decoded after them (at heldTime_) waits in session_->frame meanwhile.
    std::int64_t repeatsLeft_ = 0;
    bool isHoldingFrame_ = false;
    core::MediaTime heldTime_;
    // Samples the decoder refused, the first one's error, and whether any frame was decoded.
    std::vector<core::MediaTime> refused_;
    std::optional<int> firstRefusal_;
    bool hasDecoded_ = false;
    int errorsSinceInput_ = 0;
};

}  // namespace

core::Expected<std::unique_ptr<media::FrameReader>> makeFrameReader(
    std::shared_ptr<const TrackSource> source,
    const media::FrameReaderSettings& settings,
    std::stop_token stopToken)
{
    auto reader =
        std::make_unique<FFmpegFrameReader>(std::move(source), settings, std::move(stopToken));
    if (auto failure = reader->open()) {
        return *failure;
    }
    std::unique_ptr<media::FrameReader> result = std::move(reader);
    return result;
}

}  // namespace kestrin::media_ffmpeg::detail
