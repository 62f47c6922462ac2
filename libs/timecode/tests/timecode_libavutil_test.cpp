// Every label of a day, read by our rules and by libavutil's timecode code, which was written
// independently of ours: both must give each valid label the same frame number.

#include <kestrin/timecode/timecode.hpp>

#include <gtest/gtest.h>

extern "C" {
#include <libavutil/rational.h>
#include <libavutil/timecode.h>
}

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kestrin::timecode {
namespace {

struct DayAtRate
{
    AVRational rate;   // as libavutil takes it
    float nominalFps;  // as validity takes it
    int frameBase;     // as the frame count takes it
    FrameCounting counting;
    std::int64_t framesPerDay;
};

// Writes `value` (0–99) as two digits at `at` and the next position.
template <std::size_t Size>
void writeTwoDigits(std::array<char, Size>& text, std::size_t at, int value)
{
    text.at(at) = static_cast<char>('0' + value / 10);
    text.at(at + 1) = static_cast<char>('0' + value % 10);
}

// Walks the labels 00:00:00:00 to 23:59:59:FF in time order, FF below the frame base. Each valid
// label must be counted as libavutil counts it and one frame after the valid label before it,
// and each invalid one (skipped under drop-frame) must have no count. With as many valid labels
// as the day has frames, valid labels and frame numbers then pair off one to one.
void checkWholeDay(const DayAtRate& day)
{
    // Rewritten in place, so the millions of labels cost no allocation of their own.
    std::array<char, 8> digits{};
    std::array<char, 12> label = {"00:00:00:00"};
    label[8] = day.counting == FrameCounting::DropFrame ? ';' : ':';
    const std::string_view digitString(digits.data(), digits.size());

    std::int64_t validLabels = 0;
    std::int64_t problems = 0;
    std::string firstProblem;
    for (int hours = 0; hours < 24; ++hours) {
        writeTwoDigits(digits, 0, hours);
        writeTwoDigits(label, 0, hours);
        for (int minutes = 0; minutes < 60; ++minutes) {
            writeTwoDigits(digits, 2, minutes);
            writeTwoDigits(label, 3, minutes);
            for (int seconds = 0; seconds < 60; ++seconds) {
                writeTwoDigits(digits, 4, seconds);
                writeTwoDigits(label, 6, seconds);
                for (int frames = 0; frames < day.frameBase; ++frames) {
                    writeTwoDigits(digits, 6, frames);
                    writeTwoDigits(label, 9, frames);

                    const bool isValid =
                        isValidTimecodeDigits(digitString, day.counting, day.nominalFps);
                    const auto ours = timecodeFrameCount(digitString, day.frameBase, day.counting);
                    bool agrees = !ours.has_value();
                    AVTimecode theirs{};
                    if (isValid) {
                        const int status =
                            av_timecode_init_from_string(&theirs, day.rate, label.data(), nullptr);
                        agrees = status == 0 && ours == theirs.start && ours == validLabels;
                    }
                    if (!agrees && problems++ == 0) {
                        firstProblem = std::string(label.data()) + (isValid ? " valid" : " invalid")
                                       + ", counted as "
                                       + (ours ? std::to_string(*ours) : "absent");
                        if (isValid) {
                            firstProblem += ", by libavutil as " + std::to_string(theirs.start)
                                            + ", expected " + std::to_string(validLabels);
                        }
                    }
                    if (isValid) {
                        ++validLabels;
                    }
                }
            }
        }
    }
    EXPECT_EQ(validLabels, day.framesPerDay);
    EXPECT_EQ(problems, 0) << "first: " << firstProblem;
}

TEST(TimecodeLibavutilCrossCheck, DropFrame2997WholeDay)
{
    checkWholeDay({AVRational{30000, 1001}, 29.97F, 30, FrameCounting::DropFrame, 2589408});
}

TEST(TimecodeLibavutilCrossCheck, DropFrame5994WholeDay)
{
    checkWholeDay({AVRational{60000, 1001}, 59.94F, 60, FrameCounting::DropFrame, 5178816});
}

TEST(TimecodeLibavutilCrossCheck, NonDrop24WholeDay)
{
    checkWholeDay({AVRational{24, 1}, 24.0F, 24, FrameCounting::NonDrop, 2073600});
}

TEST(TimecodeLibavutilCrossCheck, NonDrop25WholeDay)
{
    checkWholeDay({AVRational{25, 1}, 25.0F, 25, FrameCounting::NonDrop, 2160000});
}

TEST(TimecodeLibavutilCrossCheck, NonDrop30WholeDay)
{
    checkWholeDay({AVRational{30, 1}, 30.0F, 30, FrameCounting::NonDrop, 2592000});
}

}  // namespace
}  // namespace kestrin::timecode
