#include "clip_test_support.hpp"

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>
#include <kestrin/scan/edit_detection.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace kestrin::scan {
namespace {

using media_ffmpeg::testing::cutsOf;

TEST(EditDetectionOnClips, FindsTheCutsOfEveryClipAtTheirExactFrames)
{
    const char* const clips[] = {"h264-gop12.mp4",
                                 "prores.mov",
                                 "mjpeg.mkv",
                                 "vp8-5994.webm",
                                 "h264-2997-us.mp4",
                                 "mpeg2-offset.mpg"};
    const media_ffmpeg::FFmpegAssetOpener opener;
    for (const char* clip : clips) {
        SCOPED_TRACE(clip);
        std::vector<double> reports;
        const auto markers = detectEditsByDecoding(opener,
                                                   media_ffmpeg::testing::clipPath(clip),
                                                   [&reports](double p) { reports.push_back(p); },
                                                   {});
        ASSERT_TRUE(markers) << markers.error().description;
        std::vector<std::int64_t> frames;
        for (const core::EditMarker& marker : *markers) {
            frames.push_back(marker.frameIndex);
        }
        EXPECT_EQ(frames, cutsOf(clip));
        EXPECT_TRUE(std::is_sorted(reports.begin(), reports.end()));
    }
}

}  // namespace
}  // namespace kestrin::scan
