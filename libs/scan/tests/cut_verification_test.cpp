#include <kestrin/media_testing/synthetic_asset.hpp>
#include <kestrin/scan/cut_evidence.hpp>
#include <kestrin/scan/detector.hpp>
#include <kestrin/scan/motion_residual.hpp>
#include <kestrin/scan/video_scan_service.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

namespace kestrin::scan {
namespace {

using core::MediaTime;
using Frames = std::vector<std::int64_t>;
// A picture as a function of the pixel position, in plane samples.
using Texture = std::function<double(double x, double y)>;

// A pseudo-random value in [0, 1) for the integer point (i, j) of picture `seed`.
double hashed(int seed, long i, long j)
{
    auto h = static_cast<std::uint32_t>(i * 73856093L ^ j * 19349663L ^ seed * 83492791L);
    h ^= h >> 13U;
    h *= 0x5bd1e995U;
    h ^= h >> 15U;
    return static_cast<double>(h % 10007U) / 10007.0;
}

// A textured picture, different for every `seed`: value noise on cells of 6 samples (smooth
// areas) with finer detail on cells of 2, like a photograph's mix of shapes and texture;
// `brightness` scales it.
Texture photo(int seed, double brightness = 1.0)
{
    const auto noise = [seed](double x, double y, double cell) {
        const double u = x / cell;
        const double v = y / cell;
        const long i = std::lround(std::floor(u));
        const long j = std::lround(std::floor(v));
        const double fu = u - static_cast<double>(i);
        const double fv = v - static_cast<double>(j);
        const double top = (1 - fu) * hashed(seed, i, j) + fu * hashed(seed, i + 1, j);
        const double bottom = (1 - fu) * hashed(seed, i, j + 1) + fu * hashed(seed, i + 1, j + 1);
        return (1 - fv) * top + fv * bottom;
    };
    return [noise, brightness](double x, double y) {
        return brightness * (40 + 150 * noise(x, y, 6.0) + 50 * noise(x, y, 2.0));
    };
}

LumaPlane render(const Texture& texture, double dx = 0, double dy = 0)
{
    LumaPlane plane(kSignatureWidth, kSignatureHeight);
    for (int y = 0; y < plane.height(); ++y) {
        for (int x = 0; x < plane.width(); ++x) {
            const double value = texture(x - dx, y - dy);
            plane.bytes()[static_cast<std::size_t>(y * plane.width() + x)] =
                static_cast<std::uint8_t>(std::clamp(std::lround(value), 0L, 255L));
        }
    }
    return plane;
}

// The two pictures mixed, `share` of the second.
Texture mix(const Texture& a, const Texture& b, double share)
{
    return [a, b, share](double x, double y) {
        return (1 - share) * a(x, y) + share * b(x, y);
    };
}

TEST(MotionResidual, MotionIsExplainedANewPictureIsNot)
{
    const LumaPlane still = render(photo(1));
    struct Row
    {
        const char* what;
        LumaPlane later;
        Shift hint;
        bool isExplained;
    };
    // An object covering two of the 36 blocks.
    LumaPlane occluded = still;
    for (int y = 10; y < 19; ++y) {
        for (int x = 20; x < 52; ++x) {
            occluded.bytes()[static_cast<std::size_t>(y * 96 + x)] = 250;
        }
    }
    const Row rows[] = {
        {"the same picture", still, {}, true},
        {"moved by (3, -2)", render(photo(1), 3, -2), {}, true},
        {"moved by (4, 4)", render(photo(1), 4, 4), {}, true},
        {"moved by 11 (a fast pan)", render(photo(1), 11, 0), {}, true},
        {"moved by 18 with the last motion 17", render(photo(1), 18, 0), {-17, 0}, true},
        {"moved by 18 without a hint", render(photo(1), 18, 0), {}, false},
        {"an object passing", occluded, {}, true},
        {"another picture", render(photo(2)), {}, false},
        {"the same picture much darker", render(photo(1, 0.5)), {}, false},
    };
    for (const Row& row : rows) {
        const MotionResidual residual = motionResidual(still, row.later, row.hint);
        EXPECT_EQ(residual.median < 2.0F, row.isExplained) << row.what << ": " << residual.median;
    }
    // Where in the earlier picture the blocks were found.
    EXPECT_EQ(motionResidual(still, render(photo(1), 3, -2)).motion, (Shift{-3, 2}));
    EXPECT_EQ(motionResidual(still, LumaPlane(8, 8)).median, 0.0F);
}

TEST(JudgeCut, AChangeIsACutOnlyWhenSuddenLargeAndLasting)
{
    const auto evidence = [](float residual,
                             std::vector<float> before,
                             std::vector<float> after,
                             float contrast = 50.0F,
                             float returned = std::numeric_limits<float>::infinity()) {
        CutEvidence e;
        e.residual = residual;
        e.before = std::move(before);
        e.after = std::move(after);
        e.contrastBefore = contrast;
        e.contrastAfter = contrast;
        e.returnResidual = returned;
        e.matchedResidual = residual;
        return e;
    };
    CutEvidence lighting = evidence(25, {1, 1.2F, 0.9F}, {1, 1.1F, 0.8F});
    lighting.matchedResidual = 1.1F;
    lighting.correlation = 0.97F;
    // Flat picture to smooth gradient: matching removes the change, but nothing of the earlier
    // picture's structure is in the later one.
    CutEvidence flatToGradient = lighting;
    flatToGradient.correlation = 0.1F;
    // Out of black: no exposure makes a flat picture textured.
    CutEvidence outOfBlack = lighting;
    outOfBlack.contrastBefore = 0.5F;
    const std::vector<std::pair<CutEvidence, std::string_view>> rows = {
        {evidence(40, {1, 1.2F, 0.9F}, {1, 1.1F, 0.8F}), ""},
        {evidence(40, {}, {}), ""},  // a clip of two frames
        // Dark to dark on a grainy clip: small, but large for such flat pictures.
        {evidence(5.8F, {2.2F, 2.3F, 2.2F}, {1.9F, 2.0F, 1.9F}, 6.5F), ""},
        {evidence(2.3F, {1, 1.1F}, {1, 0.9F}, 6.5F), "weak"},  // under 1.5 levels above the rest
        // The same change in a bright, detailed picture: a compression pulse, not a new shot.
        {evidence(5.8F, {2.2F, 2.3F, 2.2F}, {1.9F, 2.0F, 1.9F}, 50.0F), "weak"},
        {evidence(14, {5, 9, 4, 12}, {6, 11, 3}), "weak"},  // fast motion everywhere
        // A grainy pan whose every other frame judders: one peak a little higher than the rest.
        {evidence(3.9F, {1.7F, 3.3F, 2, 3.8F, 1.8F, 2.1F}, {1.9F, 2.1F, 3.4F, 2, 3.2F, 2}, 15.3F),
         "weak"},
        // Moving pictures before, still ones after: the cut clears both.
        {evidence(38, {3, 9, 8, 4, 13, 14, 1, 15}, {0, 1, 1, 0.5F, 0.2F, 0.2F, 0.2F}), ""},
        {evidence(40, {21, 2, 1}, {1, 1}), "gradual"},  // the end of a dissolve
        {evidence(40, {1, 1}, {25, 1}), "gradual"},
        {evidence(40, {1, 1}, {1, 19, 1}), ""},  // a cut and another two frames later
        {evidence(40, {1, 1, 1}, {1, 1, 1}, 50.0F, 3.0F), "flash"},
        {evidence(40, {1, 1, 1}, {1, 1, 1}, 50.0F, 12.0F), ""},  // a shot like one before it
        {lighting, "lighting"},
        {outOfBlack, ""},
        {flatToGradient, ""},
    };
    for (std::size_t i = 0; i < rows.size(); ++i) {
        const auto& [row, reason] = rows[i];
        SCOPED_TRACE(testing::Message() << "row " << i << ", residual " << row.residual);
        const CutVerdict verdict = judgeCut(row);
        EXPECT_EQ(verdict.reason, reason);
        EXPECT_EQ(verdict.isCut, reason.empty());
        EXPECT_EQ(verdict.confidence > 0.0F && verdict.confidence <= 1.0F, verdict.isCut)
            << "confidence " << verdict.confidence;
    }
}

// The cuts judgeCut accepts among the changes a BoundaryAnalyzer finds in `frames`.
Frames cutsIn(const std::vector<LumaPlane>& frames)
{
    BoundaryAnalyzer analyzer;
    for (std::size_t i = 0; i < frames.size(); ++i) {
        const auto index = static_cast<std::int64_t>(i);
        analyzer.push(index, MediaTime::make(index, 25), frames[i]);
    }
    analyzer.finish();
    Frames cuts;
    for (const CutEvidence& evidence : analyzer.takeEvidence()) {
        if (judgeCut(evidence).isCut) {
            cuts.push_back(evidence.frameIndex);
        }
    }
    return cuts;
}

// Appends `count` frames of `texture`, each moved by (dx, dy) more than the one before, with a
// little noise that changes from frame to frame.
void append(
    std::vector<LumaPlane>& frames, const Texture& texture, int count, double dx = 0, double dy = 0)
{
    for (int i = 0; i < count; ++i) {
        const int n = static_cast<int>(frames.size());
        const Texture noisy = [texture, n](double x, double y) {
            return texture(x, y) + 2.0 * std::sin(x * 12.9898 + y * 78.233 + n * 37.719);
        };
        frames.push_back(render(noisy, dx * i, dy * i));
    }
}

TEST(BoundaryAnalyzer, FindsCutsAndNotFlashesDissolvesFadesOrMotion)
{
    const Texture black = [](double, double) {
        return 16.0;
    };
    const Texture white = [](double, double) {
        return 250.0;
    };
    struct Row
    {
        const char* what;
        std::function<void(std::vector<LumaPlane>&)> make;
        Frames cuts;
    };
    const Row rows[] = {
        {"three shots and shots of 2 and 3 frames",
         [&](auto& f) {
             append(f, photo(1), 20);
             append(f, photo(2), 2);
             append(f, photo(3), 3);
             append(f, photo(4), 20);
         },
         {20, 22, 25}},
        {"a black frame, then the first shot; a cut 3 frames before the end",
         [&](auto& f) {
             append(f, black, 1);
             append(f, photo(1), 20);
             append(f, photo(2), 3);
         },
         {1, 21}},
        {"white flashes of one and two frames",
         [&](auto& f) {
             append(f, photo(1), 10);
             append(f, white, 1);
             append(f, photo(1), 10);
             append(f, white, 2);
             append(f, photo(1), 10);
         },
         {}},
        {"a dissolve over 8 frames",
         [&](auto& f) {
             append(f, photo(1), 15);
             for (int i = 1; i <= 8; ++i) {
                 append(f, mix(photo(1), photo(2), i / 9.0), 1);
             }
             append(f, photo(2), 15);
         },
         {}},
        {"a fade to black, then a cut in from black",
         [&](auto& f) {
             append(f, photo(1), 15);
             for (int i = 1; i <= 6; ++i) {
                 append(f, mix(photo(1), black, i / 6.0), 1);
             }
             append(f, black, 4);
             append(f, photo(2), 15);
         },
         {25}},
        {"pans of 2 and 6 samples a frame, a diagonal drift",
         [&](auto& f) {
             append(f, photo(1), 20, 2, 0);
             append(f, photo(2), 20, -6, 0);
             append(f, photo(3), 20, 1, 1);
         },
         {20, 40}},
    };
    for (const Row& row : rows) {
        std::vector<LumaPlane> frames;
        row.make(frames);
        EXPECT_EQ(cutsIn(frames), row.cuts) << row.what;
    }
}

// A synthetic picture of `texture`, which is drawn in 96 x 54 plane samples.
media_testing::Picture pictureOf(const Texture& texture)
{
    return [texture](double x, double y) {
        return static_cast<std::uint8_t>(
            std::clamp(std::lround(texture(x * kSignatureWidth, y * kSignatureHeight)), 0L, 255L));
    };
}

// 25 fps, 140 frames: photographs cut at 40, 70 and 100, a white frame at 55.
media_testing::SyntheticTrack cutsAndAFlash(const std::function<bool(std::int64_t)>& isSync)
{
    return media_testing::makeVideoTrack(
        25,
        140,
        [](std::int64_t i) {
            if (i == 55) {
                return media_testing::flatPicture(250);
            }
            return pictureOf(photo(i < 40 ? 1 : i < 70 ? 2 : i < 100 ? 3 : 4));
        },
        isSync);
}

TEST(VerifyCuts, JudgesCandidatesWithoutEvidenceOnTheirNeighbourhood)
{
    const auto asset = std::make_shared<media_testing::SyntheticAsset>(
        MediaTime::make(140, 25), std::vector{cutsAndAFlash([](std::int64_t) { return true; })});
    const media::TrackPointer track = asset->tracks()->front();
    std::vector<std::string> lines;
    const core::Log log([&lines](std::string_view line) { lines.emplace_back(line); });
    CutEvidenceStore store;
    const DetectionContext context{.asset = *asset,
                                   .track = *track,
                                   .log = log,
                                   .stopToken = {},
                                   .reportProgress = [](double) {},
                                   .switchMode = [](core::ScanMode) {},
                                   .evidence = store};
    // One candidate a frame off, as another detector might place it.
    const std::vector<core::EditMarker> candidates = {
        {20, MediaTime::make(20, 25), std::nullopt},
        {41, MediaTime::make(41, 25), std::nullopt},
        {55, MediaTime::make(55, 25), std::nullopt},
        {56, MediaTime::make(56, 25), std::nullopt},
        {100, MediaTime::make(100, 25), std::nullopt}};
    const auto cuts = verifyCuts(context, candidates);
    ASSERT_TRUE(cuts);
    Frames frames;
    for (const core::EditMarker& cut : *cuts) {
        frames.push_back(cut.frameIndex);
        EXPECT_EQ(cut.time, MediaTime::make(cut.frameIndex, 25));
        EXPECT_TRUE(cut.confidence.has_value());
    }
    EXPECT_EQ(frames, (Frames{40, 100}));
    EXPECT_EQ(lines,
              std::vector<std::string>{
                  "verifyCuts: kept 2 of 5 candidates (1 weak, 2 flash, 0 gradual, 0 lighting)."});
}

TEST(VerifiedDetector, MarksTheFirstFrameOfEachShotInBothModes)
{
    // Keyframes only at the cuts and at irregular places in between, so that they are trusted;
    // in decode order every keyframe comes two frames before it is shown (an open GOP), and the
    // cut at 70 shows two frames before its keyframe.
    const auto keyframeAt = [](std::int64_t i) {
        return i == 0 || i == 40 || i == 72 || i == 100 || i == 9 || i == 23 || i == 31 || i == 51
               || i == 87 || i == 120;
    };
    media_testing::SyntheticTrack openGop = cutsAndAFlash(keyframeAt);
    for (std::size_t i = 2; i < openGop.samples.size(); ++i) {
        if (openGop.samples[i].isSync) {
            std::rotate(&openGop.samples[i - 2], &openGop.samples[i], &openGop.samples[i + 1]);
        }
    }
    const media_testing::SyntheticTrack everyFrame =
        cutsAndAFlash([](std::int64_t) { return true; });
    for (const auto& [track, mode] : {std::pair{everyFrame, core::ScanMode::noKeyframes},
                                      std::pair{openGop, core::ScanMode::trustedKeyframes}}) {
        auto opener = std::make_shared<media_testing::SyntheticAssetOpener>();
        opener->add("clip.mov",
                    std::make_shared<media_testing::SyntheticAsset>(MediaTime::make(140, 25),
                                                                    std::vector{track}));
        const Scan scan = VideoScanService(opener, core::Log::discard()).scanForEdits("clip.mov");
        const auto first = scan.events->next();
        ASSERT_TRUE(first && first->kind() == core::ProgressEvent::Kind::mode);
        EXPECT_EQ(first->scanMode(), mode);
        const auto markers = scan.handle.waitForResult();
        ASSERT_TRUE(markers) << markers.error().description;
        Frames frames;
        for (const core::EditMarker& marker : *markers) {
            frames.push_back(marker.frameIndex);
        }
        EXPECT_EQ(frames, (Frames{40, 70, 100}));
    }
}

// A cut the encoder gave no keyframe, on a frame nothing refers to: the keyframe windows' lead-in
// (every other frame) shows the change, and the frames around it pin it.
TEST(VerifiedDetector, FindsACutWithoutKeyframeInKeyframeMode)
{
    const auto keyframeAt = [](std::int64_t i) {
        return i == 0 || i == 9 || i == 23 || i == 31 || i == 40 || i == 51 || i == 87 || i == 100
               || i == 120 || i == 131;
    };
    media_testing::SyntheticTrack track = media_testing::makeVideoTrack(
        25,
        140,
        [](std::int64_t i) {
            return pictureOf(photo(i < 40 ? 1 : i < 69 ? 2 : i < 100 ? 3 : 4));
        },
        keyframeAt);
    for (std::size_t i = 0; i < track.samples.size(); ++i) {
        track.samples[i].isReference = i % 2 == 0 || track.samples[i].isSync;
    }
    auto opener = std::make_shared<media_testing::SyntheticAssetOpener>();
    opener->add("clip.mov",
                std::make_shared<media_testing::SyntheticAsset>(MediaTime::make(140, 25),
                                                                std::vector{track}));
    std::vector<std::string> lines;
    const VideoScanService service(
        opener, core::Log([&lines](std::string_view line) { lines.emplace_back(line); }));
    const Scan scan = service.scanForEdits("clip.mov");
    const auto markers = scan.handle.waitForResult();
    ASSERT_TRUE(markers) << markers.error().description;
    Frames frames;
    for (const core::EditMarker& marker : *markers) {
        frames.push_back(marker.frameIndex);
    }
    EXPECT_EQ(frames, (Frames{40, 69, 100}));
    EXPECT_EQ(std::ranges::count(lines, "🧭 trusted? true"), 1);
}

}  // namespace
}  // namespace kestrin::scan
