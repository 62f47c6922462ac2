#include "clip_test_support.hpp"

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>
#include <kestrin/scan/video_scan_service.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace kestrin::scan {
namespace {

// Every clip of the manifest with a picture track and at least one cut, and the mode its
// keyframes put the scan in.
TEST(VerifiedDetectionOnClips, EveryCutAtItsFrameInBothModes)
{
    const std::vector<std::string> unreadable = {"truncated.mp4",
                                                 "truncated-start.mp4",
                                                 "truncated.mkv",
                                                 "truncated.avi",
                                                 "damaged.mkv",
                                                 "no-moov.mp4",
                                                 "random.bin",
                                                 "empty.mp4",
                                                 "audio.m4a",
                                                 "audio.wav"};
    const VideoScanService service(std::make_shared<media_ffmpeg::FFmpegAssetOpener>(),
                                   core::Log::discard());
    std::ifstream manifest(media_ffmpeg::testing::clipPath("cuts.txt"));
    int scanned = 0;
    for (std::string line; std::getline(manifest, line);) {
        const std::string clip = line.substr(0, line.find(' '));
        if (std::ranges::find(unreadable, clip) != unreadable.end()) {
            continue;
        }
        SCOPED_TRACE(clip);
        Scan scan = service.scanForEdits(media_ffmpeg::testing::clipPath(clip));
        core::ScanMode mode = core::ScanMode::noKeyframes;
        while (const auto event = scan.events->next()) {
            if (event->kind() == core::ProgressEvent::Kind::mode) {
                mode = event->scanMode();
            }
        }
        const auto markers = scan.handle.waitForResult();
        ASSERT_TRUE(markers) << markers.error().description;
        // An intact file reads whole: no damage, nothing missing before its declared end.
        const core::ReadDamage damage = scan.handle.damage();
        EXPECT_TRUE(damage.isClean()) << damage.damagedFrames << " damaged, covered until "
                                      << damage.coveredUntil.value_or(core::MediaTime()).seconds();
        std::vector<std::int64_t> frames;
        for (const core::EditMarker& marker : *markers) {
            frames.push_back(marker.frameIndex);
            EXPECT_TRUE(marker.confidence && *marker.confidence > 0.0F
                        && *marker.confidence <= 1.0F)
                << marker.frameIndex;
        }
        EXPECT_EQ(frames, media_ffmpeg::testing::cutsOf(clip));
        EXPECT_EQ(mode == core::ScanMode::trustedKeyframes,
                  clip == "h264-cuts.mp4" || clip == "h264-keyless-cut.mp4");
        ++scanned;
    }
    EXPECT_GE(scanned, 20);
}

// The placement matrix (every codec in every container FFmpeg writes it to, 15 to 120 fps, a
// variable rate, a black first frame): the scan marks every cut on its frame, at that frame's
// time, whatever the container keeps of the presentation times.
TEST(VerifiedDetectionOnClips, EveryCellOfThePlacementMatrix)
{
    const VideoScanService service(std::make_shared<media_ffmpeg::FFmpegAssetOpener>(),
                                   core::Log::discard());
    std::ifstream manifest(media_ffmpeg::testing::clipPath("placement") / "placement.txt");
    int scanned = 0;
    for (std::string line; std::getline(manifest, line);) {
        std::istringstream fields(line);
        std::string clip;
        std::string rate;
        std::string frameCount;
        std::string cutList;
        fields >> clip >> rate >> frameCount >> cutList;
        std::vector<std::int64_t> cuts;
        std::istringstream cutFields(cutList);
        for (std::string cut; std::getline(cutFields, cut, ',');) {
            cuts.push_back(std::stoll(cut));
        }
        SCOPED_TRACE(clip);
        const Scan scan = service.scanForEdits(media_ffmpeg::testing::clipPath("placement") / clip);
        const auto markers = scan.handle.waitForResult();
        ASSERT_TRUE(markers) << markers.error().description;
        const core::ReadDamage damage = scan.handle.damage();
        EXPECT_TRUE(damage.isClean()) << damage.damagedFrames << " damaged, covered until "
                                      << damage.coveredUntil.value_or(core::MediaTime()).seconds();
        std::vector<std::int64_t> frames;
        for (const core::EditMarker& marker : *markers) {
            frames.push_back(marker.frameIndex);
            if (rate != "vfr") {
                // frame x den / num seconds
                const auto slash = rate.find('/');
                const std::int64_t num = std::stoll(rate.substr(0, slash));
                const std::int64_t den =
                    slash == std::string::npos ? 1 : std::stoll(rate.substr(slash + 1));
                EXPECT_EQ(
                    marker.time,
                    core::MediaTime::make(marker.frameIndex * den, static_cast<std::int32_t>(num)))
                    << marker.frameIndex;
            }
        }
        EXPECT_EQ(frames, cuts);
        ++scanned;
    }
    EXPECT_GT(scanned, 60);
}

}  // namespace
}  // namespace kestrin::scan
