// Every label of a day, read by our rules and by libavutil's timecode code, which was written
// independently of ours: both must give each valid label the same frame number.

#include <kestrin/timecode/timecode.hpp>

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/rational.h>
#include <libavutil/timecode.h>
}

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>

namespace kestrin::timecode {
namespace {

struct DayAtRate
{
    const char* name;
    AVRational rate;            // as libavutil takes it
    core::FrameRate frameRate;  // as validity takes it
    int frameBase;              // as the frame count takes it
    FrameCounting counting;
    std::int64_t framesPerDay;

    friend void PrintTo(const DayAtRate& day, std::ostream* out) { *out << day.name; }
};

class TimecodeLibavutilCrossCheck : public ::testing::TestWithParam<DayAtRate>
{};

// Walks the labels 00:00:00:00 to 23:59:59:FF in time order, FF below the frame base (rewritten
// in place, so the millions of labels cost no allocation of their own). Each valid
// label must be counted as libavutil counts it and one frame after the valid label before it,
// and must be the label our inverse gives for that count,
// and each invalid one (skipped under drop-frame) must have no count. With as many valid labels
// as the day has frames, valid labels and frame numbers then pair off one to one.
TEST_P(TimecodeLibavutilCrossCheck, WholeDay)
{
    const DayAtRate& day = GetParam();
    std::int64_t validLabels = 0;
    std::string firstProblem;
    char label[] = "00:00:00:00";
    label[8] = day.counting == FrameCounting::DropFrame ? ';' : ':';
    const auto put = [&label](int at, std::int64_t value) {
        label[at] = static_cast<char>('0' + value / 10);
        label[at + 1] = static_cast<char>('0' + value % 10);
    };
    const std::int64_t base = day.frameBase;
    for (std::int64_t at = 0; at < 24 * 3600 * base; ++at) {
        put(0, at / base / 3600);
        put(3, at / base / 60 % 60);
        put(6, at / base % 60);
        put(9, at % base);
        const char digitChars[] = {
            label[0], label[1], label[3], label[4], label[6], label[7], label[9], label[10]};
        const std::string_view digits(digitChars, sizeof digitChars);
        const bool valid = isValidTimecodeDigits(digits, day.counting, day.frameRate);
        const std::optional<std::int64_t> ours =
            timecodeFrameCount(digits, day.frameBase, day.counting);
        AVTimecode theirs{};
        const bool agrees =
            valid ? av_timecode_init_from_string(&theirs, day.rate, label, nullptr) == 0
                        && ours == theirs.start && ours == validLabels
                        && timecodeTextForFrame(*ours, day.frameBase, day.counting) == label
                  : !ours.has_value();
        if (!agrees && firstProblem.empty()) {
            firstProblem = std::string(label) + (valid ? " valid" : " invalid") + ", counted as "
                           + (ours ? std::to_string(*ours) : "absent") + ", by libavutil as "
                           + std::to_string(theirs.start) + ", expected "
                           + std::to_string(validLabels);
        }
        validLabels += valid ? 1 : 0;
    }
    EXPECT_EQ(validLabels, day.framesPerDay);
    EXPECT_EQ(firstProblem, "");
}

INSTANTIATE_TEST_SUITE_P(
    Rates,
    TimecodeLibavutilCrossCheck,
    ::testing::Values(
        DayAtRate{
            "DropFrame2997", {30000, 1001}, core::kFps2997, 30, FrameCounting::DropFrame, 2589408},
        DayAtRate{
            "DropFrame5994", {60000, 1001}, core::kFps5994, 60, FrameCounting::DropFrame, 5178816},
        DayAtRate{"NonDrop24", {24, 1}, core::kFps24, 24, FrameCounting::NonDrop, 2073600},
        DayAtRate{"NonDrop25", {25, 1}, core::kFps25, 25, FrameCounting::NonDrop, 2160000},
        DayAtRate{"NonDrop30", {30, 1}, core::kFps30, 30, FrameCounting::NonDrop, 2592000}),
    [](const ::testing::TestParamInfo<DayAtRate>& param) { return std::string(param.param.name); });

}  // namespace
}  // namespace kestrin::timecode
