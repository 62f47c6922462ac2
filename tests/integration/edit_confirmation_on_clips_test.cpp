#include "clip_test_support.hpp"

#include <kestrin/core/log.hpp>
#include <kestrin/scan/edit_confirmation.hpp>
#include <kestrin/scan/keyframe_trust.hpp>

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace kestrin::scan {
namespace {

TEST(EditConfirmationOnClips, ConfirmsTheKeyframesAtCutsAndNotTheFirst)
{
    // The keyframes sit at frame 0 and at every cut (SyncSamplesOnClips checks them against
    // cuts.txt). The window of frame 0 lies inside the first shot, which changes too little
    // from frame to frame to pass the absolute threshold.
    const auto asset = media_ffmpeg::testing::openClip("h264-cuts.mp4");
    const auto track = media_ffmpeg::testing::firstVideoTrack(asset);
    const auto syncs = collectSyncSamplesFast(*track, core::Log::discard());
    ASSERT_TRUE(syncs && syncs->size() == 10U);
    std::vector<std::string> lines;
    const core::Log log([&lines](std::string_view line) { lines.emplace_back(line); });
    const auto markers = confirmEditsNearSyncs(*asset, *track, *syncs, {}, {}, log);
    ASSERT_TRUE(markers) << markers.error().description;

    std::vector<core::EditMarker> cuts;
    for (std::size_t k = 1; k < syncs->size(); ++k) {
        cuts.push_back({(*syncs)[k].index, (*syncs)[k].time, std::nullopt});
    }
    EXPECT_EQ(*markers, cuts);
    EXPECT_EQ(lines,
              std::vector<std::string>{
                  "confirmEditsNearSyncs: kept 9 of 10 sync samples as edit markers."});
}

}  // namespace
}  // namespace kestrin::scan
