#include "clip_test_support.hpp"

#include <kestrin/core/log.hpp>
#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>
#include <kestrin/scan/frame_access.hpp>
#include <kestrin/scan/keyframe_trust.hpp>
#include <kestrin/scan/luma_signature.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace kestrin::scan {
namespace {

using media_ffmpeg::testing::cutsOf;

using media_ffmpeg::testing::firstVideoTrack;
using media_ffmpeg::testing::openClip;

struct CollectedLog
{
    std::vector<std::string> lines;
    core::Log log{[this](std::string_view line) {
        lines.emplace_back(line);
    }};
};

TEST(KeyframeTrustOnClips, VerdictsFollowHowTheKeyframesWereMade)
{
    struct Row
    {
        const char* clip;
        bool trusted;
        const char* lineStart;
    };
    const Row rows[] = {
        {"h264-cuts.mp4", true, "keyframes trustable?: true — fps=25.0, codec=avc1, mode="},
        {"h264-gop12.mp4",
         false,
         "keyframes trustable?: false — fps=25.0, codec=avc1, mode=12, share=100%"},
        {"h264-bframes.mkv",
         false,
         "keyframes trustable?: false — fps=25.0, codec=avc1, mode=24, share="},
        {"h264-few-keys.mp4",
         false,
         "keyframes trustable?: false — insufficient intervals (gaps=4)"},
        {"prores.mov",
         false,
         "keyframes trustable?: false — codec is intra-only. fps=25.0, codec=apcn, "},
        {"prores.mkv",
         false,
         "keyframes trustable?: false — codec is intra-only. fps=25.0, codec=apcn, "},
        {"mjpeg.avi",
         false,
         "keyframes trustable?: false — codec is intra-only. fps=25.0, codec=jpeg, "},
        {"dv.mov",
         false,
         "keyframes trustable?: false — codec is intra-only. fps=25.0, codec=dvcp, "},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.clip);
        const auto asset = openClip(row.clip);
        CollectedLog collected;
        const auto trusted = keyframesTrustable(*asset, *firstVideoTrack(asset), {}, collected.log);
        ASSERT_TRUE(trusted) << trusted.error().description;
        EXPECT_EQ(*trusted, row.trusted);
        ASSERT_EQ(collected.lines.size(), 1U);
        EXPECT_EQ(collected.lines[0].rfind(row.lineStart, 0), 0U) << collected.lines[0];
    }
}

TEST(SyncSamplesOnClips, AreTheKeyframesFfprobeLists)
{
    for (const char* clip :
         {"h264-cuts.mp4", "h264-bframes.mp4", "h264-bframes.mkv", "prores.mov"}) {
        SCOPED_TRACE(clip);
        const auto asset = openClip(clip);
        CollectedLog collected;
        const auto syncs = collectSyncSamplesFast(*firstVideoTrack(asset), collected.log);
        ASSERT_TRUE(syncs);
        std::vector<std::int64_t> indices;
        for (const core::SyncSample& sync : *syncs) {
            indices.push_back(sync.index);
        }
        std::vector<std::int64_t> probed;
        const std::vector<bool> flags = media_ffmpeg::testing::probeKeyframeFlags(clip);
        for (std::size_t i = 0; i < flags.size(); ++i) {
            if (flags[i]) {
                probed.push_back(static_cast<std::int64_t>(i));
            }
        }
        EXPECT_EQ(indices, probed);
        ASSERT_EQ(collected.lines.size(), 1U);
        EXPECT_EQ(collected.lines[0].rfind("collectSyncSamplesFast: found "
                                               + std::to_string(probed.size())
                                               + " syncs. first=(idx:0 t:0.0) last=(idx:",
                                           0),
                  0U)
            << collected.lines[0];
    }

    // Where the keyframes were forced onto the cuts, each sync sample sits at a cut, at its time.
    const auto asset = openClip("h264-cuts.mp4");
    const auto syncs = collectSyncSamplesFast(*firstVideoTrack(asset), core::Log::discard());
    std::vector<std::int64_t> expected{0};
    for (const std::int64_t cut : cutsOf("h264-cuts.mp4")) {
        expected.push_back(cut);
    }
    ASSERT_EQ(syncs->size(), expected.size());
    for (std::size_t i = 0; i < expected.size(); ++i) {
        EXPECT_EQ((*syncs)[i].index, expected[i]);
        EXPECT_EQ((*syncs)[i].time, core::MediaTime::make(expected[i], 25));
    }
}

TEST(SignaturePassOnClips, ScoresPeakAtTheCuts)
{
    for (const char* clip : {"prores.mov", "h264-gop12.mp4", "vp8-5994.webm"}) {
        SCOPED_TRACE(clip);
        const auto asset = openClip(clip);
        const auto track = firstVideoTrack(asset);
        auto reader = makeTrackReader(*asset, *track);
        ASSERT_TRUE(reader);
        constexpr std::int64_t kStride = 3;
        SignaturePassState state(kStride);
        double lastProgress = 0.0;
        const core::Status status =
            scoreSignatures(**reader, *asset->duration(), 0.3, {}, lastProgress, state);
        ASSERT_TRUE(status) << status.error().description;

        // The scored frames whose stride spans a cut must be the highest-scoring ones.
        const std::vector<std::int64_t> cuts = cutsOf(clip);
        std::vector<float> sorted = state.scoresInOrder;
        std::sort(sorted.begin(), sorted.end(), std::greater<>());
        ASSERT_GT(sorted.size(), cuts.size());
        const float weakestCut = sorted[cuts.size() - 1];
        const float strongestShot = sorted[cuts.size()];
        for (const std::int64_t cut : cuts) {
            const std::int64_t spanning = (cut + kStride - 1) / kStride * kStride;
            const auto score = state.scoreOfFrame(spanning);
            ASSERT_TRUE(score) << "frame " << spanning;
            EXPECT_GE(*score, weakestCut) << "cut at " << cut;
        }
        EXPECT_GT(weakestCut, 2.0F * strongestShot);
    }
}

TEST(WindowDecodingOnClips, LargestChangeIsAtTheCut)
{
    const auto asset = openClip("prores.mov");
    const auto track = firstVideoTrack(asset);
    for (const std::int64_t cut : cutsOf("prores.mov")) {
        SCOPED_TRACE(cut);
        // Four frames either side, as the confirmation of sync samples reads them.
        const auto range = core::MediaTimeRange::fromStartEnd(core::MediaTime::make(cut - 4, 25),
                                                              core::MediaTime::make(cut + 4, 25));
        const auto planes = decodeWindowFrames(*asset, *track, range, 9, 320, 180);
        ASSERT_TRUE(planes);
        ASSERT_EQ(planes->size(), 8U);
        std::vector<float> diffs;
        for (std::size_t j = 0; j + 1 < planes->size(); ++j) {
            diffs.push_back(meanAbsoluteDifference((*planes)[j], (*planes)[j + 1]));
        }
        const auto largest = std::max_element(diffs.begin(), diffs.end()) - diffs.begin();
        EXPECT_EQ(largest, 3);  // between the window's frames cut - 1 and cut
    }
}

}  // namespace
}  // namespace kestrin::scan
