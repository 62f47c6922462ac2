// The FFmpeg adapter on any bytes as a media file: opening it, the keyframe trust decision and
// the sync-sample walk over its first video track, and a short decode as the scan does it. No
// input may crash them or make them read out of bounds, and the cursor and the reader must keep
// the promises of the media interface.
//
// The work per input is capped (samples walked, frames decoded) so that one input takes well
// under a second; the file lives in a directory of this process under TMPDIR, removed at exit.

#include <kestrin/media/asset.hpp>
#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>
#include <kestrin/media_ffmpeg/ffmpeg_log.hpp>
#include <kestrin/scan/keyframe_trust.hpp>

extern "C" {
#include <libavutil/cpu.h>
}

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <system_error>

#include <unistd.h>

namespace {

using namespace kestrin;

// Samples a cursor may move per walk, frames a reader may deliver. The scan's 96 x 54 luma.
constexpr std::int64_t kMaxSteps = 2000;
constexpr int kMaxFrames = 8;
constexpr int kLumaWidth = 96;
constexpr int kLumaHeight = 54;

void check(bool promise, const char* what)
{
    if (!promise) {
        std::fprintf(stderr, "broken promise: %s\n", what);
        __builtin_trap();
    }
}

// A cursor that stops moving after kMaxSteps samples, and checks that the adapter's cursor never
// reports moving further than asked.
class CappedCursor final : public media::SampleCursor
{
public:
    explicit CappedCursor(std::unique_ptr<media::SampleCursor> cursor)
        : cursor_(std::move(cursor))
    {}

    [[nodiscard]] bool currentSampleIsFullSync() const override
    {
        return cursor_->currentSampleIsFullSync();
    }
    [[nodiscard]] core::MediaTime presentationTimeStamp() const override
    {
        return cursor_->presentationTimeStamp();
    }
    std::int64_t stepInDecodeOrder(std::int64_t count) override
    {
        return step(count, &media::SampleCursor::stepInDecodeOrder);
    }
    std::int64_t stepInPresentationOrder(std::int64_t count) override
    {
        return step(count, &media::SampleCursor::stepInPresentationOrder);
    }

private:
    std::int64_t step(std::int64_t count, std::int64_t (media::SampleCursor::*move)(std::int64_t))
    {
        const std::int64_t allowed = std::clamp(count, -stepsLeft_, stepsLeft_);
        if (allowed == 0) {
            return 0;
        }
        const std::int64_t moved = (cursor_.get()->*move)(allowed);
        check(allowed > 0 ? moved >= 0 && moved <= allowed : moved <= 0 && moved >= allowed,
              "a cursor moves at most as far as asked, in the direction asked");
        stepsLeft_ -= moved < 0 ? -moved : moved;
        return moved;
    }

    std::unique_ptr<media::SampleCursor> cursor_;
    std::int64_t stepsLeft_ = kMaxSteps;
};

// The adapter's track, its cursors capped.
class CappedTrack final : public media::Track
{
public:
    explicit CappedTrack(const media::Track& track)
        : track_(track)
    {}

    [[nodiscard]] int trackIndex() const override { return track_.trackIndex(); }
    [[nodiscard]] media::MediaType mediaType() const override { return track_.mediaType(); }
    [[nodiscard]] core::Expected<float> nominalFrameRate() const override
    {
        return track_.nominalFrameRate();
    }
    [[nodiscard]] core::Expected<core::MediaTime> minFrameDuration() const override
    {
        return track_.minFrameDuration();
    }
    [[nodiscard]] std::optional<core::MediaTime> declaredDuration() const override
    {
        return track_.declaredDuration();
    }
    [[nodiscard]] core::Expected<std::vector<media::FormatDescription>> formatDescriptions()
        const override
    {
        return track_.formatDescriptions();
    }
    [[nodiscard]] core::Expected<bool> canProvideSampleCursors() const override
    {
        return track_.canProvideSampleCursors();
    }
    [[nodiscard]] std::unique_ptr<media::SampleCursor> makeSampleCursorAtFirstSampleInDecodeOrder(
        std::stop_token stopToken) const override
    {
        auto cursor = track_.makeSampleCursorAtFirstSampleInDecodeOrder(std::move(stopToken));
        return cursor ? std::make_unique<CappedCursor>(std::move(cursor)) : nullptr;
    }

private:
    const media::Track& track_;
};

// Where this process writes each input; removed when the process ends normally.
class ScratchFile
{
public:
    ScratchFile()
        : directory_(std::filesystem::temp_directory_path()
                     / ("kestrin-fuzz-" + std::to_string(::getpid())))
    {
        std::filesystem::create_directories(directory_);
    }
    ~ScratchFile()
    {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
    ScratchFile(const ScratchFile&) = delete;
    ScratchFile& operator=(const ScratchFile&) = delete;
    ScratchFile(ScratchFile&&) = delete;
    ScratchFile& operator=(ScratchFile&&) = delete;

    [[nodiscard]] std::filesystem::path write(const std::uint8_t* data, std::size_t size) const
    {
        const std::filesystem::path path = directory_ / "input";
        std::ofstream file(path, std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
        return path;
    }

private:
    std::filesystem::path directory_;
};

// Reads up to kMaxFrames frames, touching every byte of every plane.
void decodeSome(const media::Asset& asset,
                const media::Track& track,
                const media::FrameReaderSettings& settings)
{
    auto made = asset.makeFrameReader(track, settings);
    if (!made || !*made) {
        return;
    }
    media::FrameReader& reader = **made;
    if (!reader.startReading()) {
        check(reader.status() == media::ReaderStatus::failed, "a reader that cannot start failed");
        return;
    }
    for (int i = 0; i < kMaxFrames; ++i) {
        const std::optional<media::LumaFrame> frame = reader.nextFrame();
        if (!frame) {
            check(reader.status() != media::ReaderStatus::reading, "no frame ends the reading");
            return;
        }
        if (!frame->hasImage()) {
            continue;
        }
        check(frame->width == settings.width && frame->height == settings.height
                  && frame->bytesPerRow >= frame->width,
              "the plane has the size asked for");
        for (int row = 0; row < frame->height; ++row) {
            const std::uint8_t* line = frame->data + row * frame->bytesPerRow;
            for (int x = 0; x < frame->width; ++x) {
                check(settings.range == media::LumaRange::full || (line[x] >= 16 && line[x] <= 235),
                      "video-range luma within 16...235");
            }
        }
    }
    reader.cancelReading();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // One decoder thread: the same input always takes the same path, and the fuzzer's runs stay
    // within their core.
    static const bool isSetUp = [] {
        av_cpu_force_count(1);
        media_ffmpeg::routeFFmpegLog(core::Log::discard(), media_ffmpeg::FFmpegLogLevel::quiet);
        return true;
    }();
    (void)isSetUp;
    static const ScratchFile scratch;

    const auto opened = media_ffmpeg::FFmpegAssetOpener().openAsset(scratch.write(data, size));
    if (!opened) {
        return 0;
    }
    const media::Asset& asset = **opened;
    const auto tracks = asset.tracksWithMediaType(media::MediaType::video);
    if (!tracks || tracks->empty()) {
        return 0;
    }
    const media::Track& track = *tracks->front();
    const CappedTrack capped(track);

    (void)scan::keyframesTrustable(
        asset, capped, scan::KeyframeTrustParameters{}, core::Log::discard());
    const auto syncs = scan::collectSyncSamplesFast(capped, core::Log::discard());
    if (syncs) {
        for (std::size_t i = 1; i < syncs->size(); ++i) {
            check((*syncs)[i - 1].index < (*syncs)[i].index, "sync samples in decode order");
        }
    }

    // From the start, as the scan's first pass reads; then a window from the middle with what
    // reaching it decodes, as a refinement reads.
    decodeSome(asset, track, {kLumaWidth, kLumaHeight, media::LumaRange::full, {}, false});
    const auto duration = asset.duration();
    if (duration && duration->isNumeric() && *duration > core::MediaTime::zero()) {
        const core::MediaTimeRange window{duration->multipliedByRatio(1, 2),
                                          duration->multipliedByRatio(1, 4)};
        decodeSome(asset, track, {kLumaWidth, kLumaHeight, media::LumaRange::video, window, true});
    }
    return 0;
}
