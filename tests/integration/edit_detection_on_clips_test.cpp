#include "clip_test_support.hpp"

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>
#include <kestrin/scan/edit_detection.hpp>
#include <kestrin/scan/frame_access.hpp>
#include <kestrin/scan/refinement.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <string_view>
#include <vector>

namespace kestrin::scan {
namespace {

using media_ffmpeg::testing::cutsOf;

constexpr const char* kClips[] = {"h264-gop12.mp4",
                                  "h264-bframes.mkv",
                                  "prores.mov",
                                  "mjpeg.mkv",
                                  "vp8-5994.webm",
                                  "h264-2997-us.mp4",
                                  "mpeg2-offset.mpg"};

TEST(EditDetectionOnClips, FindsTheCutsOfEveryClipAtTheirExactFrames)
{
    for (const char* clip : kClips) {
        SCOPED_TRACE(clip);
        std::vector<double> reports;
        const media::AssetPointer asset = media_ffmpeg::testing::openClip(clip);
        const media::TrackPointer track = media_ffmpeg::testing::firstVideoTrack(asset);
        const auto markers = detectEditsByDecoding(
            *asset, *track, [&reports](double p) { reports.push_back(p); }, {});
        ASSERT_TRUE(markers) << markers.error().description;
        std::vector<std::int64_t> frames;
        for (const core::EditMarker& marker : *markers) {
            frames.push_back(marker.frameIndex);
        }
        EXPECT_EQ(frames, cutsOf(clip));
        EXPECT_TRUE(std::is_sorted(reports.begin(), reports.end()));
    }
}

// The refinements are answered from the signature pass's timeline instead of decoding again; that
// is only allowed because the answers are the same. Checked around every fifth frame, cut or not,
// across the seeks and B-frame reordering of the decoding refinement. Not on the MPEG program
// stream: it has no index and seeks by byte position, and what MPEG-2 decodes after such a seek
// (open GOPs) need not match the decode from the start, so away from a cut, where the differences
// are all small, a decoding refinement can pick another frame. The first test covers its markers.
TEST(EditDetectionOnClips, TimelineRefinementsEqualDecodedOnes)
{
    const media_ffmpeg::FFmpegAssetOpener opener;
    for (const char* clip : kClips) {
        if (std::string_view(clip).ends_with(".mpg")) {
            continue;
        }
        SCOPED_TRACE(clip);
        const auto asset = opener.openAsset(media_ffmpeg::testing::clipPath(clip));
        ASSERT_TRUE(asset) << asset.error().description;
        const auto tracks = (*asset)->tracks();
        ASSERT_TRUE(tracks && !tracks->empty());
        const media::Track& track = *tracks->front();
        const auto duration = (*asset)->duration();
        const auto rate = frameRateRational(track);
        ASSERT_TRUE(duration && rate);

        auto reader = makeTrackReader(**asset, track);
        ASSERT_TRUE(reader);
        SignaturePassState pass(3);
        double lastProgress = 0.0;
        ASSERT_TRUE(scoreSignatures(**reader, *duration, 0.3, {}, lastProgress, pass));
        ASSERT_TRUE(pass.timeline.isUsable());
        const auto frameCount = static_cast<std::int64_t>(pass.timeline.frames().size());
        for (std::int64_t candidate = 0; candidate <= frameCount; candidate += 5) {
            SCOPED_TRACE(candidate);
            const auto decoded = refineAround(candidate, **asset, track, {});
            ASSERT_TRUE(decoded) << decoded.error().description;
            EXPECT_EQ(refineFromTimeline(candidate, pass.timeline, *rate, duration->seconds()),
                      *decoded);
        }
    }
}

}  // namespace
}  // namespace kestrin::scan
