#include "clip_test_support.hpp"

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>
#include <string>
#include <vector>

// The placement matrix that tests/clips/make-placement-clips makes: every codec in every container
// FFmpeg writes it to, three shots each. Whatever the container keeps of the presentation times,
// frame k must come out at frame k's time, the cuts on their own frames, and a sync sample's time
// must be the time of the frame that sync sample decodes to.

namespace kestrin::media_ffmpeg {
namespace {

using core::MediaTime;

std::filesystem::path placementDir()
{
    return testing::clipPath("placement");
}

// One line of placement.txt.
struct PlacementClip
{
    std::string name;
    std::int64_t frameCount = 0;
    std::vector<std::int64_t> cuts;
    std::vector<std::int64_t> keyframes;
    std::vector<MediaTime> frameTimes;  // frame k's presentation time
};

std::vector<std::int64_t> splitNumbers(const std::string& text)
{
    std::vector<std::int64_t> numbers;
    std::istringstream in(text);
    for (std::string field; std::getline(in, field, ',');) {
        numbers.push_back(std::stoll(field));
    }
    return numbers;
}

// "<num>[/<den>]" frames per second, or "vfr"; times "grid" or "<timescale>:<t0>,<t1>,...".
std::vector<MediaTime> frameTimesOf(const std::string& rate,
                                    const std::string& times,
                                    std::int64_t frameCount)
{
    std::vector<MediaTime> result;
    if (times == "grid") {
        const auto slash = rate.find('/');
        const std::int64_t num = std::stoll(rate.substr(0, slash));
        const std::int64_t den =
            slash == std::string::npos ? 1 : std::stoll(rate.substr(slash + 1));
        for (std::int64_t k = 0; k < frameCount; ++k) {
            result.push_back(MediaTime::make(k * den, static_cast<std::int32_t>(num)));
        }
        return result;
    }
    const auto colon = times.find(':');
    const auto timescale = static_cast<std::int32_t>(std::stol(times.substr(0, colon)));
    for (const std::int64_t value : splitNumbers(times.substr(colon + 1))) {
        result.push_back(MediaTime::make(value, timescale));
    }
    return result;
}

std::vector<PlacementClip> placementClips()
{
    std::vector<PlacementClip> clips;
    std::ifstream manifest(placementDir() / "placement.txt");
    std::string line;
    while (std::getline(manifest, line)) {
        std::istringstream fields(line);
        PlacementClip clip;
        std::string rate;
        std::string cuts;
        std::string keyframes;
        std::string times;
        fields >> clip.name >> rate >> clip.frameCount >> cuts >> keyframes >> times;
        clip.cuts = splitNumbers(cuts);
        clip.keyframes = splitNumbers(keyframes);
        clip.frameTimes = frameTimesOf(rate, times, clip.frameCount);
        clips.push_back(std::move(clip));
    }
    return clips;
}

// The number of packets of the first video stream that ffprobe flags as keyframes.
std::int64_t probeKeyframeCount(const std::string& clip)
{
    const auto flags = testing::probeKeyframeFlags("placement/" + clip);
    return std::count(flags.begin(), flags.end(), true);
}

std::string timeText(const MediaTime& time)
{
    return ::testing::PrintToString(time);
}

// The mean absolute difference of two planes of the same size.
double meanDifference(const std::vector<std::uint8_t>& a, const std::vector<std::uint8_t>& b)
{
    if (a.empty() || a.size() != b.size()) {
        return 0.0;
    }
    std::int64_t sum = 0;
    for (std::size_t i = 0; i < a.size(); ++i) {
        sum += std::abs(static_cast<int>(a[i]) - static_cast<int>(b[i]));
    }
    return static_cast<double>(sum) / static_cast<double>(a.size());
}

// The frames that differ most from the one before, as many as there are cuts, in frame order.
std::vector<std::int64_t> largestChanges(const std::vector<testing::CopiedFrame>& frames,
                                         std::size_t count)
{
    std::vector<std::pair<double, std::int64_t>> changes;
    for (std::size_t k = 1; k < frames.size(); ++k) {
        changes.emplace_back(meanDifference(frames[k - 1].luma, frames[k].luma),
                             static_cast<std::int64_t>(k));
    }
    count = std::min(count, changes.size());
    std::partial_sort(changes.begin(),
                      changes.begin() + static_cast<std::ptrdiff_t>(count),
                      changes.end(),
                      [](const auto& a, const auto& b) { return a.first > b.first; });
    std::vector<std::int64_t> result;
    for (std::size_t i = 0; i < count; ++i) {
        result.push_back(changes[i].second);
    }
    std::sort(result.begin(), result.end());
    return result;
}

std::string listText(const std::vector<std::int64_t>& values)
{
    std::string text;
    for (const std::int64_t value : values) {
        text += (text.empty() ? "" : " ") + std::to_string(value);
    }
    return text;
}

void checkPlacement(const PlacementClip& clip)
{
    SCOPED_TRACE(clip.name);
    auto opened = FFmpegAssetOpener().openAsset(placementDir() / clip.name);
    ASSERT_TRUE(opened) << clip.name << ": " << opened.error().description;
    const media::AssetPointer asset = *opened;
    const auto track = testing::firstVideoTrack(asset);
    ASSERT_TRUE(track);

    const auto read =
        testing::readFrames(asset, track, {.width = 80, .height = 45, .timeRange = {}});
    EXPECT_EQ(read.status, media::ReaderStatus::completed) << clip.name;
    EXPECT_EQ(std::ssize(read.frames), clip.frameCount) << clip.name << ": frames delivered";
    for (std::size_t k = 0; k < read.frames.size() && k < clip.frameTimes.size(); ++k) {
        if (read.frames[k].time != clip.frameTimes[k]) {
            ADD_FAILURE() << clip.name << ": frame " << k << " at " << timeText(read.frames[k].time)
                          << ", expected " << timeText(clip.frameTimes[k]);
            break;
        }
        if (k > 0 && !(read.frames[k - 1].time < read.frames[k].time)) {
            ADD_FAILURE() << clip.name << ": frame " << k << " at " << timeText(read.frames[k].time)
                          << " does not follow frame " << k - 1;
            break;
        }
    }
    EXPECT_EQ(listText(largestChanges(read.frames, clip.cuts.size())), listText(clip.cuts))
        << clip.name << ": the frames that change most";

    // Every sync sample is one of the encoder's keyframes, at that keyframe's time, and the
    // cursor finds as many as ffprobe does.
    const std::set<std::int64_t> keyframes(clip.keyframes.begin(), clip.keyframes.end());
    const auto walked = testing::walkInDecodeOrder(track);
    std::set<std::int64_t> reported;
    for (std::size_t i = 0; i < walked.isSync.size(); ++i) {
        if (!walked.isSync[i]) {
            continue;
        }
        const auto at = std::find(clip.frameTimes.begin(), clip.frameTimes.end(), walked.times[i]);
        const auto frame = at - clip.frameTimes.begin();
        if (at == clip.frameTimes.end() || !keyframes.contains(frame)
            || !reported.insert(frame).second) {
            ADD_FAILURE() << clip.name << ": sync sample " << i << " (decode order) at "
                          << timeText(walked.times[i]) << ", not a keyframe's time; keyframes "
                          << listText(clip.keyframes);
        }
    }
    EXPECT_EQ(std::ssize(reported), probeKeyframeCount(clip.name))
        << clip.name << ": sync samples found";
}

void checkClips(const std::string& prefix)
{
    const auto clips = placementClips();
    ASSERT_GT(clips.size(), 60U) << "placement.txt in " << placementDir();
    int checked = 0;
    for (const PlacementClip& clip : clips) {
        if (clip.name.starts_with(prefix)) {
            checkPlacement(clip);
            ++checked;
        }
    }
    EXPECT_GT(checked, 0) << "no clip starts with " << prefix;
}

// Reads of a time range, after a seek or going on from the reader before, deliver the very frames
// of a whole read: where stamps come from the pictures (AVI, MXF, MPEG-PS), and where the frames
// of a range repeat one decoded before it (Theora).
TEST(FFmpegPlacement, RangeReadsDeliverTheFramesOfAWholeRead)
{
    const std::pair<std::int64_t, std::int64_t> ranges[] = {{17, 29}, {33, 46}, {2, 9}};
    for (const std::string& clip : testing::clips(
             "h264.avi h264-open-gop.avi mpeg2.avi xvid.avi h264.mxf h264.mpg hevc.mpg theora.ogg "
             "theora.mkv")) {
        SCOPED_TRACE(clip);
        auto opened = FFmpegAssetOpener().openAsset(placementDir() / clip);
        ASSERT_TRUE(opened);
        const auto track = testing::firstVideoTrack(*opened);
        const media::FrameReaderSettings settings{.width = 80, .height = 45, .timeRange = {}};
        const auto whole = testing::readFrames(*opened, track, settings);
        ASSERT_EQ(whole.frames.size(), 46U);
        for (const auto& [first, end] : ranges) {
            const auto range = core::MediaTimeRange::fromStartEnd(MediaTime::make(first, 25),
                                                                  MediaTime::make(end, 25));
            const auto part = testing::readFrames(
                *opened, track, {.width = 80, .height = 45, .timeRange = range});
            EXPECT_EQ(part.status, media::ReaderStatus::completed);
            ASSERT_EQ(std::ssize(part.frames), end - first) << clip << " from frame " << first;
            for (std::int64_t k = first; k < end; ++k) {
                const auto& frame = part.frames[static_cast<std::size_t>(k - first)];
                const auto& reference = whole.frames[static_cast<std::size_t>(k)];
                EXPECT_EQ(frame.time, reference.time) << clip << ": frame " << k;
                EXPECT_TRUE(frame.luma == reference.luma)
                    << clip << ": frame " << k << " differs from a whole read";
            }
        }
    }
}

TEST(FFmpegPlacement, H264)
{
    checkClips("h264.");
}
TEST(FFmpegPlacement, H264OpenGop)
{
    checkClips("h264-open-gop.");
}
TEST(FFmpegPlacement, H264TenBit)
{
    checkClips("h264-10bit.");
}
TEST(FFmpegPlacement, H264FourTwoTwo)
{
    checkClips("h264-422.");
}
TEST(FFmpegPlacement, H264CutAtFrameOne)
{
    checkClips("h264-black-first.");
}
TEST(FFmpegPlacement, H264At15And120Fps)
{
    checkClips("h264-1");
}
TEST(FFmpegPlacement, H264VariableFrameRate)
{
    checkClips("h264-vfr.");
}
TEST(FFmpegPlacement, Hevc)
{
    checkClips("hevc");
}
TEST(FFmpegPlacement, Mpeg2)
{
    checkClips("mpeg2");
}
TEST(FFmpegPlacement, Mpeg4)
{
    checkClips("mpeg4");
}
TEST(FFmpegPlacement, Xvid)
{
    checkClips("xvid");
}
TEST(FFmpegPlacement, Vp9)
{
    checkClips("vp9");
}
TEST(FFmpegPlacement, Av1)
{
    checkClips("av1");
}
TEST(FFmpegPlacement, ProRes)
{
    checkClips("prores");
}
TEST(FFmpegPlacement, DnxHR)
{
    checkClips("dnxhr");
}
TEST(FFmpegPlacement, Dv)
{
    checkClips("dv");
}
TEST(FFmpegPlacement, Mjpeg)
{
    checkClips("mjpeg");
}
TEST(FFmpegPlacement, Ffv1)
{
    checkClips("ffv1");
}
TEST(FFmpegPlacement, RawVideo)
{
    checkClips("raw");
}
TEST(FFmpegPlacement, Theora)
{
    checkClips("theora");
}

}  // namespace
}  // namespace kestrin::media_ffmpeg
