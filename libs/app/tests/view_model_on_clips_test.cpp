// The view model as the panel drives it, on the real clips with the FFmpeg adapter: choose the
// file, read its rate, set the timecodes, scan, export. The file must be the one kestrin-scan
// writes for the same inputs.

#include "clip_test_support.hpp"

#include <kestrin/app/edit_detector_view_model.hpp>
#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>

#include <gtest/gtest.h>

#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <fstream>
#include <iterator>

namespace kestrin::app {
namespace {

constexpr int kScanTimeoutMs = 300000;

std::vector<std::uint8_t> readFile(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(ViewModelOnClips, ExportsWhatTheCommandLineToolWrites)
{
    struct Row
    {
        const char* clip;
        core::FrameRate nominalFPS;
        std::optional<bool> detectedIsDropFrame;
        const char* sessionStart;
        const char* videoStart;
    };
    const Row rows[] = {
        {"h264-cuts.mp4", core::kFps25, std::nullopt, "00:59:58:00", "01:00:00:00"},
        {"timecode-df.mov", core::kFps2997, true, "01:00:00;00", "01:00:10;00"},
    };
    const QTemporaryDir scratch;
    ASSERT_TRUE(scratch.isValid());
    for (const Row& row : rows) {
        SCOPED_TRACE(row.clip);
        const std::filesystem::path clip = media_ffmpeg::testing::clipPath(row.clip);
        EditDetectorViewModel model(std::make_shared<media_ffmpeg::FFmpegAssetOpener>(),
                                    core::Log::discard());

        model.setSelectedURL(clip);
        model.loadVideoInfo(clip);
        ASSERT_TRUE(QTest::qWaitFor(
            [&] {
                return model.nominalFPS() == row.nominalFPS
                       && model.detectedIsDropFrame() == row.detectedIsDropFrame;
            },
            kScanTimeoutMs));
        model.setSessionStartDigits(row.sessionStart);
        model.setVideoStartDigits(row.videoStart);

        model.startScan();
        ASSERT_TRUE(QTest::qWaitFor([&] { return !model.isProcessing(); }, kScanTimeoutMs));
        ASSERT_EQ(model.errorMessage(), std::nullopt);
        std::vector<std::int64_t> frames;
        for (const core::EditMarker& marker : model.markers()) {
            frames.push_back(marker.frameIndex);
        }
        EXPECT_EQ(frames, media_ffmpeg::testing::cutsOf(row.clip));
        EXPECT_EQ(model.progress(), 1.0);

        const core::Expected<std::vector<std::uint8_t>> bytes = model.makeMIDIData();
        ASSERT_TRUE(bytes.hasValue()) << bytes.error().description;
        const std::filesystem::path written =
            std::filesystem::path(scratch.path().toStdString()) / (std::string(row.clip) + ".mid");
        ASSERT_EQ(QProcess::execute(KESTRIN_SCAN_BINARY,
                                    {"-q",
                                     "--session-start",
                                     row.sessionStart,
                                     "--video-start",
                                     row.videoStart,
                                     "-o",
                                     QString::fromStdString(written.string()),
                                     QString::fromStdString(clip.string())}),
                  0);
        const std::vector<std::uint8_t> expected = readFile(written);
        EXPECT_EQ(*bytes, expected);
    }
}

}  // namespace
}  // namespace kestrin::app
