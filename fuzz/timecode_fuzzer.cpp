// The timecode rules on any digit string, timecode text, frame and rate: no input may crash them,
// and the round trips the rules promise must hold.
//
// Input: a flags byte, a rate, a frame, a nominal rate as a float's bits (snapped to a standard
// rate, as every rate that reaches these functions is), then the text.

#include "fuzz_input.hpp"

#include <kestrin/timecode/timecode.hpp>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdio>
#include <string>

namespace {

using namespace kestrin::timecode;
using kestrin::fuzz::FuzzInput;

constexpr std::int64_t kDropFrameHourThirty = 107892;
constexpr std::int64_t kDropFrameHourSixty = 215784;

// A broken promise: the fuzzer keeps the input, the replay test fails.
void check(bool promise, const char* what)
{
    if (!promise) {
        std::fprintf(stderr, "broken promise: %s\n", what);
        __builtin_trap();
    }
}

bool isAsciiDigits(std::string_view text)
{
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// Frames in a day of the timecode clock, after which the hours wrap; 0 where the labels do not
// read back as the frame (a frame base above 99 needs a third frame digit; drop-frame labels count
// thirty or sixty a second, which frames below a base of 30 cannot hold).
std::int64_t framesPerDay(int fps, FrameCounting counting)
{
    if (fps < 1 || fps > 99) {
        return 0;
    }
    if (counting == FrameCounting::NonDrop) {
        return 24LL * 3600 * fps;
    }
    if (fps < 30) {
        return 0;
    }
    return 24 * (fps > 59 ? kDropFrameHourSixty : kDropFrameHourThirty);
}

void checkFrameRoundTrip(std::int64_t frame, int fps, FrameCounting counting)
{
    const std::optional<std::string> text = timecodeTextForFrame(frame, fps, counting);
    check(text.has_value() == (frame >= 0 && fps >= 1), "a text exactly for frames >= 0, fps >= 1");
    if (!text) {
        return;
    }
    check(text->size() == 11, "a text of eleven characters");
    const std::int64_t day = framesPerDay(fps, counting);
    if (day == 0) {
        return;
    }
    const std::int64_t expected = frame % day;
    const std::string digits = numericOnly(*text);
    check(digits.size() == kTimecodeDigitCount && isAsciiDigits(digits), "eight ASCII digits");
    check(timecodeFrameCount(digits, fps, counting) == expected, "frame -> text -> frame");
    // Validity counts drop-frame over sixty at a base of exactly 60, the count from 60 on.
    if (counting == FrameCounting::NonDrop || fps <= 60) {
        check(isValidTimecodeDigits(digits, counting, kestrin::core::FrameRate{fps, 1}),
              "a valid label");
    }
    check(timecodeDisplayString(digits, counting) == *text, "the digits display as the text");
    if (counting == FrameCounting::DropFrame) {
        const DropFrameBase base = fps > 59 ? DropFrameBase::Sixty : DropFrameBase::Thirty;
        check(dropFrameCount(*text, base) == expected, "drop-frame text -> frame");
    }
}

// A valid digit string of ASCII digits counts as a frame whose text is the string's display.
// (Validity reads drop-frame over sixty at a frame base of exactly 60, the count from 60 on, so
// drop-frame bases above 60, which no rate in use has, are left out.)
void checkDigitsRoundTrip(std::string_view digits,
                          FrameCounting counting,
                          kestrin::core::FrameRate rate)
{
    const bool isValid = isValidTimecodeDigits(digits, counting, rate);
    const int base = rate.timecodeBase();
    check(!isValid || base >= 1, "valid only at a frame base of at least 1");
    const int maxBase = counting == FrameCounting::DropFrame ? 60 : 99;
    if (!isValid || !isAsciiDigits(digits) || base > maxBase) {
        return;
    }
    const std::optional<std::int64_t> frame = timecodeFrameCount(digits, base, counting);
    check(frame.has_value(), "a valid label has a frame count");
    check(timecodeTextForFrame(*frame, base, counting) == timecodeDisplayString(digits, counting),
          "valid digits -> frame -> text");
}

// A parsed drop-frame text within a day formats back to its own components.
void checkParsedText(std::string_view text, DropFrameBase base)
{
    const std::optional<TimecodeComponents> parsed = parseTimecode(text, base);
    const std::optional<std::int64_t> count = dropFrameCount(text, base);
    if (!parsed) {
        check(!count, "no count without components");
        return;
    }
    const TimecodeComponents& c = *parsed;
    check(c.minutes >= 0 && c.minutes <= 59 && c.seconds >= 0 && c.seconds <= 59 && c.frames >= 0
              && c.frames < (base == DropFrameBase::Sixty ? 60 : 30),
          "parsed components in range");
    if (c.hours < 0 || c.hours > 23) {
        return;
    }
    check(count.has_value() && *count >= 0, "a count for hours within a day");
    const int fps = base == DropFrameBase::Sixty ? 60 : 30;
    char expected[16];
    std::snprintf(expected,
                  sizeof expected,
                  "%02lld:%02lld:%02lld;%02lld",
                  static_cast<long long>(c.hours),
                  static_cast<long long>(c.minutes),
                  static_cast<long long>(c.seconds),
                  static_cast<long long>(c.frames));
    check(timecodeTextForFrame(*count, fps, FrameCounting::DropFrame) == std::string(expected),
          "drop-frame text -> frame -> text");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzInput input(data, size);
    const std::uint8_t flags = input.takeByte();
    // Mostly the rates in use and their neighbours; sometimes any int.
    const int fps = (flags & 1U) != 0
                        ? static_cast<int>(static_cast<std::int32_t>(input.takeBits(4)))
                        : input.takeByte() % 128;
    const std::int64_t frame = input.takeInt64();
    const auto nominalFps = std::bit_cast<float>(static_cast<std::uint32_t>(input.takeBits(4)));
    const std::string_view text = input.takeRest();

    const std::string numeric = numericOnly(text);
    check(numericOnly(numeric) == numeric, "numericOnly keeps only numerals");
    for (const FrameCounting counting : {FrameCounting::NonDrop, FrameCounting::DropFrame}) {
        checkFrameRoundTrip(frame, fps, counting);
        checkDigitsRoundTrip(text, counting, kestrin::core::standardFrameRate(nominalFps));
        checkDigitsRoundTrip(text, counting, kestrin::core::FrameRate{fps, 1});
        // The display and the count read the numerals of any text.
        const std::string shown = timecodeDisplayString(text, counting);
        check(shown == timecodeDisplayString(numeric, counting), "display of the numerals only");
        const std::optional<std::int64_t> count = timecodeFrameCount(text, fps, counting);
        check(!count || *count >= 0, "a count is never negative");
        check(count == timecodeFrameCount(numeric, fps, counting), "count of the numerals only");
    }
    checkParsedText(text, DropFrameBase::Thirty);
    checkParsedText(text, DropFrameBase::Sixty);
    return 0;
}
