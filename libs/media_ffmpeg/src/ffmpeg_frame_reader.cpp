#include "ffmpeg_support.hpp"

extern "C" {
#include <libavutil/pixdesc.h>
#include <libswscale/swscale.h>
}

#include <algorithm>
#include <array>
#include <optional>
#include <utility>

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

class FFmpegFrameReader final : public media::FrameReader
{
public:
    FFmpegFrameReader(std::shared_ptr<const TrackSource> source,
                      const media::FrameReaderSettings& settings,
                      std::stop_token stopToken)
        : source_(std::move(source))
        , settings_(settings)
    {
        interrupt_.stopToken = std::move(stopToken);
    }

    /// Opens the file and the decoder; the error when either fails.
    std::optional<core::Error> open()
    {
        if (settings_.width < 1 || settings_.height < 1) {
            return ffmpegError(AVERROR(EINVAL));
        }
        auto opened = openInput(source_->path, interrupt_, false);
        if (!opened) {
            return opened.error();
        }
        format_ = std::move(*opened);
        if (source_->streamIndex >= static_cast<int>(format_->nb_streams)) {
            return ffmpegError(errorStreamNotFound());
        }
        stream_ = format_->streams[source_->streamIndex];
        if (stream_->codecpar->codec_type != AVMEDIA_TYPE_VIDEO) {
            return ffmpegError(errorStreamNotFound());
        }
        for (unsigned int i = 0; i < format_->nb_streams; ++i) {
            format_->streams[i]->discard =
                format_->streams[i] == stream_ ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
        }
        const AVCodec* codec = avcodec_find_decoder(stream_->codecpar->codec_id);
        if (codec == nullptr) {
            return ffmpegError(errorDecoderNotFound());
        }
        decoder_.reset(avcodec_alloc_context3(codec));
        packet_.reset(av_packet_alloc());
        frame_.reset(av_frame_alloc());
        if (!decoder_ || !packet_ || !frame_) {
            return ffmpegError(AVERROR(ENOMEM));
        }
        int result = avcodec_parameters_to_context(decoder_.get(), stream_->codecpar);
        if (result < 0) {
            return ffmpegError(result);
        }
        decoder_->pkt_timebase = stream_->time_base;
        // The decoder's own threads, as many as there are cores, across frames and within them.
        decoder_->thread_count = 0;
        decoder_->thread_type = FF_THREAD_FRAME | FF_THREAD_SLICE;
        result = avcodec_open2(decoder_.get(), codec, nullptr);
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
            if (rangeStart_ > core::MediaTime::zero()) {
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

    std::optional<media::LumaFrame> nextFrame() override
    {
        while (status_ == media::ReaderStatus::reading) {
            if (interrupt_.stopToken.stop_requested()) {
                status_ = media::ReaderStatus::cancelled;
                break;
            }
            const int received = avcodec_receive_frame(decoder_.get(), frame_.get());
            if (received == errorAgain()) {
                feedDecoder();
                continue;
            }
            if (received == errorEof()) {
                status_ = media::ReaderStatus::completed;
                break;
            }
            if (received < 0) {
                fail(received);
                break;
            }
            auto delivered = takeFrame();
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
        interrupt_.isAbandoned = true;
    }

private:
    void fail(int code)
    {
        if (code == errorExit() && interrupt_.stopToken.stop_requested()) {
            status_ = media::ReaderStatus::cancelled;
            return;
        }
        status_ = media::ReaderStatus::failed;
        error_ = ffmpegError(code);
    }

    bool seekTo(std::int64_t stamp)
    {
        const int result = avformat_seek_file(format_.get(),
                                              stream_->index,
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
        avcodec_flush_buffers(decoder_.get());
        isInputDone_ = false;
        return true;
    }

    // Reads the next packet of the track and hands it to the decoder (or, at the end of the
    // file, tells the decoder to give out what it holds).
    void feedDecoder()
    {
        if (isInputDone_) {
            // The decoder wants input after being drained: nothing more will come.
            status_ = media::ReaderStatus::completed;
            return;
        }
        for (;;) {
            const int read = av_read_frame(format_.get(), packet_.get());
            if (read == errorEof()) {
                isInputDone_ = true;
                const int sent = avcodec_send_packet(decoder_.get(), nullptr);
                if (sent < 0 && sent != errorEof()) {
                    fail(sent);
                }
                return;
            }
            if (read < 0) {
                fail(read);
                return;
            }
            if (packet_->stream_index != stream_->index) {
                av_packet_unref(packet_.get());
                continue;
            }
            if (settings_.timeRange) {
                // Frames shown before the range are decoded only as far as later frames need
                // them: those no other frame refers to are skipped, which after a seek is much of
                // the lead-in from the sync sample (every non-reference B-frame, for one).
                decoder_->skip_frame =
                    isShownBeforeRange(*packet_) ? AVDISCARD_NONREF : AVDISCARD_DEFAULT;
            }
            const int sent = avcodec_send_packet(decoder_.get(), packet_.get());
            av_packet_unref(packet_.get());
            if (sent < 0 && sent != errorAgain()) {
                fail(sent);
            }
            return;
        }
    }

    // Turns the decoded frame into the frame to deliver, or drops it (before the range, or the
    // range has ended); absent when dropped.
    std::optional<media::LumaFrame> takeFrame()
    {
        const std::int64_t stamp =
            frame_->pts != AV_NOPTS_VALUE ? frame_->pts : frame_->best_effort_timestamp;
        const core::MediaTime time = source_->timing.timeOf(stamp);
        if (settings_.timeRange && time.isNumeric()) {
            if (isCheckingSeek_) {
                isCheckingSeek_ = false;
                // The seek landed on a sync sample presented after the range starts (the index
                // holds decode times, or the container seeks coarsely): go further back.
                if (time > rangeStart_ && seekStamp_ > source_->timing.origin) {
                    av_frame_unref(frame_.get());
                    retreat();
                    return std::nullopt;
                }
            }
            if (time >= rangeEnd_) {
                av_frame_unref(frame_.get());
                status_ = media::ReaderStatus::completed;
                return std::nullopt;
            }
            if (!(time + durationOfFrame() > rangeStart_)) {
                av_frame_unref(frame_.get());
                return std::nullopt;
            }
        }
        return convert(time);
    }

    void retreat()
    {
        ++seekRetries_;
        if (seekRetries_ > kSeekRetries) {
            seekStamp_ = source_->timing.origin;
            seekTo(seekStamp_);
            return;
        }
        const std::int64_t second = av_rescale_q(1, AVRational{1, 1}, stream_->time_base);
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
                           packet.duration * stream_->time_base.num, stream_->time_base.den)
                                           : core::MediaTime::zero();
        }
        return time.isNumeric() && !(time + duration > rangeStart_);
    }

    [[nodiscard]] core::MediaTime durationOfFrame() const
    {
        const core::MediaTime grid = source_->timing.frameDuration();
        if (grid.isNumeric()) {
            return grid;
        }
        if (frame_->pkt_duration > 0) {
            return core::MediaTime::make(frame_->pkt_duration * stream_->time_base.num,
                                         stream_->time_base.den);
        }
        return core::MediaTime::zero();
    }

    std::optional<media::LumaFrame> convert(const core::MediaTime& time)
    {
        media::LumaFrame out;
        out.presentationTime = time;
        out.duration = durationOfFrame();
        out.width = settings_.width;
        out.height = settings_.height;
        const auto decoded = static_cast<AVPixelFormat>(frame_->format);
        const auto [format, isJpegFormat] = withoutJpegRange(decoded);
        const bool isFullRange =
            isJpegFormat || frame_->color_range == AVCOL_RANGE_JPEG
            || (isGray(format) && frame_->color_range == AVCOL_RANGE_UNSPECIFIED);
        const bool wantsFullRange = settings_.range == media::LumaRange::full;

        // Video range is always made from the full-range plane (see below), even from a source
        // in video range, so that it is the same function of the picture as for every reader.
        if (hasEightBitLumaPlane(format) && frame_->width == settings_.width
            && frame_->height == settings_.height && frame_->linesize[0] > 0 && isFullRange
            && wantsFullRange) {
            out.data = frame_->data[0];
            out.bytesPerRow = frame_->linesize[0];
            return out;
        }

        scale_.reset(sws_getCachedContext(scale_.release(),
                                          frame_->width,
                                          frame_->height,
                                          format,
                                          settings_.width,
                                          settings_.height,
                                          AV_PIX_FMT_GRAY8,
                                          SWS_AREA,
                                          nullptr,
                                          nullptr,
                                          nullptr));
        if (!scale_) {
            fail(AVERROR(EINVAL));
            return std::nullopt;
        }
        // Always to full range, whatever the source's depth and range; video range is then made
        // from it with one table, so both ranges come out of the same conversion.
        const int* coefficients = sws_getCoefficients(SWS_CS_DEFAULT);
        sws_setColorspaceDetails(
            scale_.get(), coefficients, isFullRange ? 1 : 0, coefficients, 1, 0, 1 << 16, 1 << 16);
        plane_.resize(static_cast<std::size_t>(settings_.width)
                      * static_cast<std::size_t>(settings_.height));
        std::array<std::uint8_t*, 4> destination{plane_.data(), nullptr, nullptr, nullptr};
        std::array<int, 4> destinationStride{settings_.width, 0, 0, 0};
        const int rows = sws_scale(scale_.get(),
                                   frame_->data,
                                   frame_->linesize,
                                   0,
                                   frame_->height,
                                   destination.data(),
                                   destinationStride.data());
        if (rows <= 0) {
            fail(rows < 0 ? rows : errorInvalidData());
            return std::nullopt;
        }
        if (!wantsFullRange) {
            static const std::array<std::uint8_t, 256> kVideoRange = makeVideoRangeTable();
            for (std::uint8_t& value : plane_) {
                value = kVideoRange[value];
            }
        }
        out.data = plane_.data();
        out.bytesPerRow = settings_.width;
        return out;
    }

    std::shared_ptr<const TrackSource> source_;
    media::FrameReaderSettings settings_;
    // Everything below belongs to the thread using the reader.
    Interrupt interrupt_;  // must outlive format_
    FormatContextPointer format_;
    AVStream* stream_ = nullptr;
    CodecContextPointer decoder_;
    PacketPointer packet_;
    FramePointer frame_;
    ScaleContextPointer scale_;
    std::vector<std::uint8_t> plane_;
    media::ReaderStatus status_ = media::ReaderStatus::notStarted;
    std::optional<core::Error> error_;
    core::MediaTime rangeStart_;
    core::MediaTime rangeEnd_;
    std::int64_t seekStamp_ = 0;
    int seekRetries_ = 0;
    bool isCheckingSeek_ = false;
    bool isInputDone_ = false;
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
