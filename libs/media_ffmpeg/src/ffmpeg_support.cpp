#include "ffmpeg_support.hpp"

#include "local_file_input.hpp"

#include <kestrin/core/wide_math.hpp>

#include <array>
#include <limits>
#include <string>

extern "C" {
#include <libavutil/error.h>
#include <libavutil/mem.h>
}

namespace kestrin::media_ffmpeg::detail {

core::Error ffmpegError(int code)
{
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(code, text.data(), text.size());
    return core::Error{"FFmpeg", code, std::string(text.data())};
}

int errorExit()
{
    return AVERROR_EXIT;
}
int errorEof()
{
    return AVERROR_EOF;
}
int errorAgain()
{
    return AVERROR(EAGAIN);
}
int errorStreamNotFound()
{
    return AVERROR_STREAM_NOT_FOUND;
}
int errorDecoderNotFound()
{
    return AVERROR_DECODER_NOT_FOUND;
}
int errorInvalidData()
{
    return AVERROR_INVALIDDATA;
}

void FormatContextDeleter::operator()(AVFormatContext* context) const
{
    // The input was handed to the context in openInput; the context does not close custom I/O.
    auto* input = static_cast<LocalFileInput*>(context->opaque);
    avformat_close_input(&context);
    delete input;  // NOLINT(cppcoreguidelines-owning-memory)
}

void PacketDeleter::operator()(AVPacket* packet) const
{
    av_packet_free(&packet);
}

namespace {

using core::divideRoundingDown;
using core::divideRoundingToNearest;
using core::fitsInt64;
using core::Int128;

// Called by FFmpeg from inside blocking I/O; a non-zero result makes that I/O fail with
// AVERROR_EXIT.
int interruptCallback(void* opaque)
{
    const auto* interrupt = static_cast<const Interrupt*>(opaque);
    return (interrupt->isAbandoned || interrupt->stopToken.stop_requested()) ? 1 : 0;
}

}  // namespace

core::Expected<FormatContextPointer> openInput(const std::filesystem::path& path,
                                               Interrupt& interrupt,
                                               bool findStreamInfo)
{
    core::Expected<std::unique_ptr<LocalFileInput>> input = LocalFileInput::open(path, interrupt);
    if (!input) {
        return input.error();
    }
    AVFormatContext* raw = avformat_alloc_context();
    if (raw == nullptr) {
        return ffmpegError(AVERROR(ENOMEM));
    }
    raw->interrupt_callback.callback = &interruptCallback;
    raw->interrupt_callback.opaque = &interrupt;
    raw->pb = (*input)->io();
    raw->flags |= AVFMT_FLAG_CUSTOM_IO;
    // Nothing but the file itself is read: demuxers that would open what the file names
    // (playlists, concatenation lists) are refused, and so are the protocols of any nested
    // context they make, which inherit this whitelist of none.
    raw->io_open = &refuseNestedOpen;
    raw->protocol_whitelist = av_strdup("none");
    // Streams that stamp only some frames (MPEG program streams put a time on the first frame of
    // each packet) get the missing presentation times from the frames that follow, so the
    // cursor and the reader see the same time for every sample.
    raw->flags |= AVFMT_FLAG_GENPTS;
    // Probed here, as avformat_open_input would, to name the formats that only list other files.
    const AVInputFormat* format = nullptr;
    const int probed = av_probe_input_buffer2(raw->pb, &format, path.c_str(), raw, 0, 0);
    if (probed < 0 || isListOfOtherFiles(*format)) {
        avformat_free_context(raw);
        return probed < 0 ? inputError(probed) : listRefused(*format);
    }
    // avformat_open_input frees the context when it fails (not the input, which is ours).
    const int opened = avformat_open_input(&raw, path.c_str(), format, nullptr);
    if (opened < 0) {
        return inputError(opened);
    }
    raw->opaque = input->release();  // closed by FormatContextDeleter
    FormatContextPointer context(raw);
    if (findStreamInfo || (context->ctx_flags & AVFMTCTX_NOHEADER) != 0) {
        const int found = avformat_find_stream_info(context.get(), nullptr);
        if (found < 0) {
            return inputError(found);
        }
    }
    return context;
}

core::MediaTime TrackTiming::timeOf(std::int64_t stamp) const
{
    if (stamp == AV_NOPTS_VALUE || timeBase.num <= 0 || timeBase.den <= 0) {
        return core::MediaTime::invalid();
    }
    const Int128 relative = static_cast<Int128>(stamp) - origin;
    if (hasFrameGrid()) {
        // All three quantities in units of 1 / (timeBase.den x frameDurationTimescale) seconds.
        const Int128 position = relative * timeBase.num * frameDurationTimescale;
        const Int128 frame = static_cast<Int128>(timeBase.den) * frameDurationValue;
        const Int128 tick = static_cast<Int128>(timeBase.num) * frameDurationTimescale;
        const Int128 frameNumber = divideRoundingToNearest(position, frame);
        const Int128 offset = position - frameNumber * frame;
        const Int128 value = frameNumber * frameDurationValue;
        if ((offset < 0 ? -offset : offset) < tick && fitsInt64(value)) {
            return core::MediaTime::make(static_cast<std::int64_t>(value), frameDurationTimescale);
        }
    }
    const Int128 value = relative * timeBase.num;
    if (!fitsInt64(value)) {
        return value > 0 ? core::MediaTime::positiveInfinity()
                         : core::MediaTime::negativeInfinity();
    }
    return core::MediaTime::make(static_cast<std::int64_t>(value), timeBase.den);
}

std::int64_t TrackTiming::stampAtOrBefore(const core::MediaTime& time) const
{
    if (!time.isNumeric() || timeBase.num <= 0) {
        return origin;
    }
    const Int128 stamp = divideRoundingDown(static_cast<Int128>(time.value) * timeBase.den,
                                            static_cast<Int128>(time.timescale) * timeBase.num)
                         + origin;
    return fitsInt64(stamp) ? static_cast<std::int64_t>(stamp) : origin;
}

core::MediaTime TrackTiming::frameDuration() const
{
    return frameDurationValue > 0
               ? core::MediaTime::make(frameDurationValue, frameDurationTimescale)
               : core::MediaTime::invalid();
}

std::optional<std::int64_t> TrackTiming::frameIndexOf(const core::MediaTime& time) const
{
    if (!hasFrameGrid() || !time.isNumeric() || time.timescale <= 0) {
        return std::nullopt;
    }
    // time = index x frameDurationValue / frameDurationTimescale exactly.
    const Int128 numerator = static_cast<Int128>(time.value) * frameDurationTimescale;
    const Int128 denominator = static_cast<Int128>(time.timescale) * frameDurationValue;
    if (numerator % denominator != 0 || !fitsInt64(numerator / denominator)) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(numerator / denominator);
}

std::int64_t TrackTiming::frameStepInStamps() const
{
    if (frameDurationValue <= 0 || timeBase.num <= 0 || frameDurationTimescale <= 0) {
        return 1;
    }
    const Int128 step =
        divideRoundingToNearest(static_cast<Int128>(frameDurationValue) * timeBase.den,
                                static_cast<Int128>(frameDurationTimescale) * timeBase.num);
    return step >= 1 && fitsInt64(step) ? static_cast<std::int64_t>(step) : 1;
}

}  // namespace kestrin::media_ffmpeg::detail
