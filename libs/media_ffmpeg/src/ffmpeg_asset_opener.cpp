#include "ffmpeg_support.hpp"

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>
#include <kestrin/media_ffmpeg/ffmpeg_log.hpp>

extern "C" {
#include <libavutil/intreadwrite.h>
}

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <optional>
#include <string_view>
#include <utility>

namespace kestrin::media_ffmpeg {

namespace {

using detail::TrackSource;

// FFmpeg's codes are MKTAG: the first character in the least significant byte.
media::FourCC fourCCOfTag(unsigned int tag)
{
    return ((tag & 0xFFU) << 24U) | (((tag >> 8U) & 0xFFU) << 16U) | (((tag >> 16U) & 0xFFU) << 8U)
           | ((tag >> 24U) & 0xFFU);
}

constexpr unsigned int tagOf(const char (&text)[5])
{
    return static_cast<unsigned int>(static_cast<unsigned char>(text[0]))
           | (static_cast<unsigned int>(static_cast<unsigned char>(text[1])) << 8U)
           | (static_cast<unsigned int>(static_cast<unsigned char>(text[2])) << 16U)
           | (static_cast<unsigned int>(static_cast<unsigned char>(text[3])) << 24U);
}

bool isTimecodeStream(const AVCodecParameters& parameters)
{
    return parameters.codec_type == AVMEDIA_TYPE_DATA && parameters.codec_tag == tagOf("tmcd");
}

media::MediaType mediaTypeOf(const AVCodecParameters& parameters)
{
    if (isTimecodeStream(parameters)) {
        return media::MediaType::timecode;
    }
    switch (parameters.codec_type) {
        case AVMEDIA_TYPE_VIDEO:
            return media::MediaType::video;
        case AVMEDIA_TYPE_AUDIO:
            return media::MediaType::audio;
        case AVMEDIA_TYPE_SUBTITLE:
            return media::MediaType::subtitle;
        case AVMEDIA_TYPE_DATA:
            return media::MediaType::data;
        default:
            return media::MediaType::unknown;
    }
}

// The container's code when QuickTime's table knows it for this codec (MOV, MP4, and ProRes in
// MKV, which keeps the QuickTime code); otherwise QuickTime's code for the codec, so that an AVI's
// 'MJPG' reads as 'jpeg' and DV's 'dvsd' as a QuickTime DV code; otherwise the container's code.
media::FourCC mediaSubTypeOf(const AVCodecParameters& parameters)
{
    if (isTimecodeStream(parameters)) {
        return media::fourCC("tmcd");
    }
    const AVCodecTag* const* table = nullptr;
    std::array<const AVCodecTag*, 2> tables{};
    if (parameters.codec_type == AVMEDIA_TYPE_VIDEO) {
        tables[0] = avformat_get_mov_video_tags();
        table = tables.data();
    } else if (parameters.codec_type == AVMEDIA_TYPE_AUDIO) {
        tables[0] = avformat_get_mov_audio_tags();
        table = tables.data();
    }
    if (table != nullptr && parameters.codec_id != AV_CODEC_ID_NONE) {
        if (parameters.codec_tag != 0
            && av_codec_get_id(table, parameters.codec_tag) == parameters.codec_id) {
            return fourCCOfTag(parameters.codec_tag);
        }
        const unsigned int quickTimeTag = av_codec_get_tag(table, parameters.codec_id);
        if (quickTimeTag != 0) {
            return fourCCOfTag(quickTimeTag);
        }
    }
    return fourCCOfTag(parameters.codec_tag);
}

// FFmpeg's QuickTime demuxer keeps the timecode sample description, from its reserved field on,
// as the stream's extradata: reserved (4 bytes), flags (4), timescale (4), frame duration (4),
// frames per second (1), ... all big-endian.
std::uint32_t timeCodeFlagsOf(const AVCodecParameters& parameters)
{
    if (!isTimecodeStream(parameters) || parameters.extradata == nullptr
        || parameters.extradata_size < 8) {
        return 0;
    }
    return AV_RB32(parameters.extradata + 4);
}

// The rates cameras and editing systems use; a stated rate this close to one of them is that rate
// (containers with a coarse clock state 59.94 as 19001/317, a microsecond MP4 29.97 as
// 100000000/3336667). The tolerance stays well under the 0.1 % between 23.976 and 24.
constexpr std::array<AVRational, 14> kStandardRates{{{24000, 1001},
                                                     {24, 1},
                                                     {25, 1},
                                                     {30000, 1001},
                                                     {30, 1},
                                                     {48000, 1001},
                                                     {48, 1},
                                                     {50, 1},
                                                     {60000, 1001},
                                                     {60, 1},
                                                     {100, 1},
                                                     {120000, 1001},
                                                     {120, 1},
                                                     {15, 1}}};
constexpr double kStandardRateTolerance = 0.0005;

bool isUsableRate(AVRational rate)
{
    return rate.num > 0 && rate.den > 0;
}

// `rate` snapped to a standard rate when it is one (then `isStandard` is set); {0, 1} when
// unusable.
AVRational snappedRate(AVRational rate, bool* isStandard = nullptr)
{
    if (isStandard != nullptr) {
        *isStandard = false;
    }
    if (!isUsableRate(rate)) {
        return AVRational{0, 1};
    }
    const double framesPerSecond = av_q2d(rate);
    for (const AVRational& standard : kStandardRates) {
        if (std::fabs(framesPerSecond / av_q2d(standard) - 1.0) < kStandardRateTolerance) {
            if (isStandard != nullptr) {
                *isStandard = true;
            }
            return standard;
        }
    }
    AVRational reduced{0, 1};
    av_reduce(&reduced.num, &reduced.den, rate.num, rate.den, 1 << 30);
    return reduced;
}

// The frame grid of a video stream: its rate, and whether every frame lies on it.
struct FrameGrid
{
    AVRational rate{0, 1};
    bool isConstantRate = true;
};

// The average rate (or, without one, the rate FFmpeg guessed from the time stamps: the lowest rate
// on which they all lie), snapped to a standard rate when it is one. Where the two differ, a
// standard guessed rate is the grid of a stream that leaves some frames out (Theora's repeated
// pictures, which MOV stores as longer samples); any other difference is a variable frame rate,
// whose times are kept as they are.
FrameGrid frameGridOf(const AVStream& stream)
{
    const AVRational average = snappedRate(stream.avg_frame_rate);
    bool isStandard = false;
    const AVRational guessed = snappedRate(stream.r_frame_rate, &isStandard);
    if (!isUsableRate(average)) {
        return FrameGrid{guessed, true};
    }
    if (!isUsableRate(guessed) || av_cmp_q(average, guessed) == 0) {
        return FrameGrid{average, true};
    }
    return isStandard ? FrameGrid{guessed, true} : FrameGrid{average, false};
}

// Whether the container's index holds every sample with its presentation time: only FFmpeg's
// QuickTime demuxer fills a complete index at opening, and its entries carry decode times, which
// are the presentation times only for codecs that never reorder frames.
bool indexIsComplete(const AVFormatContext& context, const AVStream& stream)
{
    if (std::string_view(context.iformat->name).find("mov") == std::string_view::npos) {
        return false;
    }
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get(stream.codecpar->codec_id);
    if (descriptor == nullptr || (descriptor->props & AV_CODEC_PROP_REORDER) != 0) {
        return false;
    }
    const int count = avformat_index_get_entries_count(&stream);
    // A fragmented file's index grows as its fragments are read: fewer entries than frames.
    return count > 0 && stream.nb_frames > 0 && count >= stream.nb_frames;
}

std::shared_ptr<const std::vector<detail::SampleEntry>> indexOf(AVStream& stream)
{
    const int count = avformat_index_get_entries_count(&stream);
    auto entries = std::make_shared<std::vector<detail::SampleEntry>>();
    entries->reserve(static_cast<std::size_t>(count));
    for (int i = 0; i < count; ++i) {
        const AVIndexEntry* entry = avformat_index_get_entry(&stream, i);
        // Samples an edit list cuts away are in the index but never presented.
        if (entry == nullptr || (entry->flags & AVINDEX_DISCARD_FRAME) != 0) {
            continue;
        }
        entries->push_back(detail::SampleEntry{
            entry->timestamp, entry->timestamp, (entry->flags & AVINDEX_KEYFRAME) != 0});
    }
    return entries;
}

class FFmpegTrack final : public media::Track
{
public:
    FFmpegTrack(int trackIndex,
                std::shared_ptr<const TrackSource> source,
                float nominalFrameRate,
                std::optional<core::MediaTime> declaredDuration,
                std::vector<media::FormatDescription> descriptions)
        : trackIndex_(trackIndex)
        , source_(std::move(source))
        , nominalFrameRate_(nominalFrameRate)
        , declaredDuration_(declaredDuration)
        , descriptions_(std::move(descriptions))
    {}

    [[nodiscard]] int trackIndex() const override { return trackIndex_; }
    [[nodiscard]] media::MediaType mediaType() const override { return source_->mediaType; }
    [[nodiscard]] core::Expected<float> nominalFrameRate() const override
    {
        return nominalFrameRate_;
    }
    [[nodiscard]] core::Expected<core::MediaTime> minFrameDuration() const override
    {
        return source_->timing.frameDuration();
    }
    [[nodiscard]] std::optional<core::MediaTime> declaredDuration() const override
    {
        return declaredDuration_;
    }
    [[nodiscard]] core::Expected<std::vector<media::FormatDescription>> formatDescriptions()
        const override
    {
        return descriptions_;
    }
    [[nodiscard]] core::Expected<bool> canProvideSampleCursors() const override { return true; }
    [[nodiscard]] std::unique_ptr<media::SampleCursor> makeSampleCursorAtFirstSampleInDecodeOrder(
        std::stop_token stopToken) const override
    {
        return detail::makeSampleCursor(source_, std::move(stopToken));
    }

    [[nodiscard]] const std::shared_ptr<const TrackSource>& source() const { return source_; }

private:
    // Immutable after construction.
    int trackIndex_;
    std::shared_ptr<const TrackSource> source_;
    float nominalFrameRate_;
    std::optional<core::MediaTime> declaredDuration_;
    std::vector<media::FormatDescription> descriptions_;
};

class FFmpegAsset final : public media::Asset
{
public:
    FFmpegAsset(core::MediaTime duration, std::vector<media::TrackPointer> tracks)
        : duration_(duration)
        , tracks_(std::move(tracks))
    {}

    [[nodiscard]] core::Expected<core::MediaTime> duration() const override { return duration_; }
    [[nodiscard]] core::Expected<std::vector<media::TrackPointer>> tracks() const override
    {
        return tracks_;
    }
    [[nodiscard]] core::Expected<std::unique_ptr<media::FrameReader>> makeFrameReader(
        const media::Track& track,
        const media::FrameReaderSettings& settings,
        std::stop_token stopToken) const override
    {
        const auto* ours = dynamic_cast<const FFmpegTrack*>(&track);
        if (ours == nullptr || ours->mediaType() != media::MediaType::video) {
            return detail::ffmpegError(detail::errorStreamNotFound());
        }
        return detail::makeFrameReader(ours->source(), settings, std::move(stopToken));
    }

private:
    // Immutable after construction.
    core::MediaTime duration_;
    std::vector<media::TrackPointer> tracks_;
};

core::MediaTime durationOf(const AVFormatContext& context)
{
    if (context.duration != AV_NOPTS_VALUE && context.duration >= 0) {
        return core::MediaTime::make(context.duration, AV_TIME_BASE);
    }
    return core::MediaTime::indefinite();
}

// "HH:MM:SS.fraction", the form of Matroska's DURATION tag, as a time; nothing when malformed.
std::optional<core::MediaTime> parseTagDuration(std::string_view text)
{
    constexpr std::int32_t kMicroseconds = 1'000'000;
    std::array<std::int64_t, 3> fields{};
    std::size_t at = 0;
    for (std::size_t field = 0; field < fields.size(); ++field) {
        const std::size_t start = at;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9' && at - start < 9) {
            fields[field] = fields[field] * 10 + (text[at] - '0');
            ++at;
        }
        const char separator = field < 2 ? ':' : '.';
        if (at == start || (at < text.size() && text[at] != separator)
            || (field < 2 && at == text.size())) {
            return std::nullopt;
        }
        ++at;
    }
    std::int64_t fraction = 0;
    std::int64_t scale = kMicroseconds;
    for (; at < text.size(); ++at) {
        if (text[at] < '0' || text[at] > '9') {
            return std::nullopt;
        }
        if (scale > 1) {
            scale /= 10;
            fraction += (text[at] - '0') * scale;
        }
    }
    if (fields[1] > 59 || fields[2] > 59) {
        return std::nullopt;
    }
    const std::int64_t seconds = (fields[0] * 60 + fields[1]) * 60 + fields[2];
    return core::MediaTime::make(seconds * kMicroseconds + fraction, kMicroseconds);
}

// How long the container says `stream` lasts: the stream's own duration (stored in the file, or
// measured by FFmpeg from the time stamps at both of its ends), the DURATION tag Matroska writers
// put on each track, or the whole file's duration when the stream is alone in it. Nothing when
// FFmpeg only guessed from the bit rate: that guess is often far off.
std::optional<core::MediaTime> declaredDurationOf(const AVFormatContext& context,
                                                  const AVStream& stream)
{
    if (context.duration_estimation_method == AVFMT_DURATION_FROM_BITRATE) {
        return std::nullopt;
    }
    if (stream.duration != AV_NOPTS_VALUE && stream.duration > 0) {
        std::int64_t microseconds =
            av_rescale_q(stream.duration, stream.time_base, AVRational{1, AV_TIME_BASE});
        // An AVI header counts the stream's frames. Where the index at the end of a file cut
        // short is missing, FFmpeg measures the duration from the data left instead.
        if (std::string_view(context.iformat->name) == "avi" && stream.nb_frames > 0
            && isUsableRate(stream.avg_frame_rate)) {
            microseconds = std::max(microseconds,
                                    av_rescale_q(stream.nb_frames,
                                                 av_inv_q(stream.avg_frame_rate),
                                                 AVRational{1, AV_TIME_BASE}));
        }
        return core::MediaTime::make(microseconds, AV_TIME_BASE);
    }
    if (const AVDictionaryEntry* tag = av_dict_get(stream.metadata, "DURATION", nullptr, 0)) {
        if (auto parsed = parseTagDuration(tag->value)) {
            return parsed;
        }
    }
    if (context.nb_streams == 1 && context.duration != AV_NOPTS_VALUE && context.duration > 0) {
        return core::MediaTime::make(context.duration, AV_TIME_BASE);
    }
    return std::nullopt;
}

detail::TrackTiming timingOf(const AVStream& stream, media::MediaType type)
{
    detail::TrackTiming timing;
    timing.timeBase = stream.time_base;
    timing.origin = stream.start_time != AV_NOPTS_VALUE ? stream.start_time : 0;
    if (type == media::MediaType::video) {
        const FrameGrid grid = frameGridOf(stream);
        if (isUsableRate(grid.rate)) {
            timing.frameDurationValue = grid.rate.den;
            timing.frameDurationTimescale = grid.rate.num;
        }
        timing.isConstantRate = grid.isConstantRate;
    }
    return timing;
}

// Whether `stream` holds pictures that may be shown in another order than they are decoded.
bool reordersPictures(const AVStream& stream)
{
    const AVCodecDescriptor* descriptor = avcodec_descriptor_get(stream.codecpar->codec_id);
    return stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO && descriptor != nullptr
           && (descriptor->props & AV_CODEC_PROP_REORDER) != 0;
}

// What the first packets of a stream say of its time stamps.
struct StampSurvey
{
    int packets = 0;
    bool isMissingPresentationStamps = false;
    bool hasReorderedStamps = false;  // some presentation stamp differs from its decode stamp
    std::int64_t firstDecodeStamp = AV_NOPTS_VALUE;

    // Nothing more to learn: a missing stamp answers the question, and so do enough packets
    // (MPEG program streams stamp the first pictures and leave some later ones out).
    [[nodiscard]] bool isDecided() const;
};

// How many packets of a stream the survey reads at most: several groups of pictures.
constexpr int kSurveyedPackets = 96;

bool StampSurvey::isDecided() const
{
    return firstDecodeStamp != AV_NOPTS_VALUE
           && (isMissingPresentationStamps || packets >= kSurveyedPackets);
}

// Reads the first packets of the file until every stream whose pictures reorder is decided
// (those FFmpeg read to find the streams come back first, so this mostly costs no further I/O);
// other streams are not surveyed.
std::vector<StampSurvey> surveyStamps(AVFormatContext& context)
{
    std::vector<StampSurvey> surveys(context.nb_streams);
    std::vector<bool> isSurveyed(context.nb_streams);
    for (unsigned int i = 0; i < context.nb_streams; ++i) {
        isSurveyed[i] = reordersPictures(*context.streams[i]);
    }
    const auto isDone = [&] {
        for (std::size_t i = 0; i < surveys.size(); ++i) {
            if (isSurveyed[i] && !surveys[i].isDecided()) {
                return false;
            }
        }
        return true;
    };
    detail::PacketPointer packet(av_packet_alloc());
    for (int read = 0; packet && !isDone() && read < kSurveyedPackets * 4; ++read) {
        if (av_read_frame(&context, packet.get()) < 0) {
            break;
        }
        const auto index = static_cast<std::size_t>(packet->stream_index);
        StampSurvey& survey = surveys[index];
        if (isSurveyed[index] && survey.packets < kSurveyedPackets) {
            ++survey.packets;
            if (survey.firstDecodeStamp == AV_NOPTS_VALUE) {
                survey.firstDecodeStamp = packet->dts;
            }
            survey.isMissingPresentationStamps |= packet->pts == AV_NOPTS_VALUE;
            survey.hasReorderedStamps |=
                packet->pts != AV_NOPTS_VALUE && packet->pts != packet->dts;
        }
        av_packet_unref(packet.get());
    }
    return surveys;
}

// Whether a stream's container keeps only the decode order of pictures that are shown in another
// order: AVI has no presentation stamps at all (FFmpeg's guesses from the decode stamps are off
// by the reordering delay); other containers show it by stamps that are missing or all equal to
// the decode stamps, as MXF without temporal offsets gives them. (A stream without B-frames whose
// stamps are all equal is stamped the same either way.)
bool hasDecodeOrderOnly(const AVFormatContext& context,
                        const AVStream& stream,
                        const StampSurvey& survey)
{
    if (!reordersPictures(stream) || survey.packets == 0
        || survey.firstDecodeStamp == AV_NOPTS_VALUE) {
        return false;
    }
    if (std::string_view(context.iformat->name) == "avi") {
        return true;
    }
    return survey.isMissingPresentationStamps || !survey.hasReorderedStamps;
}

}  // namespace

FFmpegAssetOpener::FFmpegAssetOpener()
{
    ensureFFmpegLogRouted();
}

core::Expected<media::AssetPointer> FFmpegAssetOpener::openAsset(const std::filesystem::path& path,
                                                                 std::stop_token stopToken) const
{
    detail::Interrupt interrupt{std::move(stopToken)};
    auto opened = detail::openInput(path, interrupt, true);
    if (!opened) {
        return opened.error();
    }
    AVFormatContext& context = **opened;

    const std::vector<StampSurvey> surveys = surveyStamps(context);
    std::vector<media::TrackPointer> tracks;
    for (unsigned int i = 0; i < context.nb_streams; ++i) {
        AVStream& stream = *context.streams[i];
        if ((stream.disposition & AV_DISPOSITION_ATTACHED_PIC) != 0) {
            continue;
        }
        const AVCodecParameters& parameters = *stream.codecpar;
        auto source = std::make_shared<TrackSource>();
        source->path = path;
        source->streamIndex = stream.index;
        source->mediaType = mediaTypeOf(parameters);
        source->timing = timingOf(stream, source->mediaType);
        if (source->mediaType == media::MediaType::video
            && hasDecodeOrderOnly(context, stream, surveys[i])) {
            source->hasDecodeOrderOnly = true;
            // The first picture decoded is the first shown, and is given its decode stamp.
            source->timing.origin = surveys[i].firstDecodeStamp;
        } else if (indexIsComplete(context, stream)) {
            source->index = indexOf(stream);
        }
        const float nominalRate = isUsableRate(stream.avg_frame_rate)
                                      ? static_cast<float>(av_q2d(stream.avg_frame_rate))
                                      : 0.0F;
        std::vector<media::FormatDescription> descriptions{media::FormatDescription{
            source->mediaType, mediaSubTypeOf(parameters), timeCodeFlagsOf(parameters)}};
        tracks.push_back(std::make_shared<FFmpegTrack>(static_cast<int>(tracks.size()),
                                                       std::move(source),
                                                       nominalRate,
                                                       declaredDurationOf(context, stream),
                                                       std::move(descriptions)));
    }
    media::AssetPointer asset =
        std::make_shared<FFmpegAsset>(durationOf(context), std::move(tracks));
    return asset;
}

}  // namespace kestrin::media_ffmpeg
