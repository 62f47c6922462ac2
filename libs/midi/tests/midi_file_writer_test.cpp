#include <kestrin/midi/midi_file_writer.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace kestrin::midi {
namespace {

using Bytes = std::vector<std::uint8_t>;

constexpr MarkerFileLayout kPlain = MarkerFileLayout::Plain;
constexpr MIDIFrameRate kRate = MIDIFrameRate::Fps25;

// Plain layout; throws, failing the test, when the file is refused.
Bytes assembled(const std::vector<std::uint64_t>& ticks,
                std::string_view markerName,
                std::optional<std::string_view> firstMarkerName)
{
    return assembleMarkerFile(ticks, markerName, firstMarkerName, kPlain, kRate).value();
}

Bytes assembled(const std::vector<std::uint64_t>& ticks, const std::vector<std::string>& names)
{
    return assembleMarkerFile(ticks, names, kPlain, kRate).value();
}

TEST(MIDIVariableLengthQuantity, SevenBitGroupsMostSignificantFirst)
{
    const std::pair<std::uint64_t, Bytes> rows[] = {
        {0, {0x00}},
        {127, {0x7F}},
        {128, {0x81, 0x00}},
        {16383, {0xFF, 0x7F}},
        {16384, {0x81, 0x80, 0x00}},
        {192000, {0x8B, 0xDC, 0x00}},
        {0x0FFFFFFF, {0xFF, 0xFF, 0xFF, 0x7F}},  // the longest a MIDI file allows
        {0x10000000, {0x81, 0x80, 0x80, 0x80, 0x00}},
        {std::numeric_limits<std::uint64_t>::max(),
         {0x81, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}},
    };
    for (const auto& [value, bytes] : rows) {
        EXPECT_EQ(encodeVariableLengthQuantity(value), bytes) << value;
    }
}

// The worked example is compared with its golden file in the exporter's round trip.
TEST(MIDIMarkerFile, LayoutOfLongerFiles)
{
    // The track length counts everything from the tempo event through the end of the track.
    const Bytes file = assembled({0, 127, 128, 192000, 0x0FFFFFFF}, "Schnitt ä", "VIDEO START");
    ASSERT_GT(file.size(), 22U);
    EXPECT_EQ((std::uint32_t{file[18]} << 24U) | (std::uint32_t{file[19]} << 16U)
                  | (std::uint32_t{file[20]} << 8U) | file[21],
              file.size() - 22);
    EXPECT_EQ(Bytes(file.end() - 4, file.end()), (Bytes{0x00, 0xFF, 0x2F, 0x00}));

    // At 48, after header, tempo and track name: delta 05, FF 06, then the length 200 in two bytes.
    const Bytes longText = assembled({5}, std::string(200, 'x'), std::nullopt);
    EXPECT_EQ(Bytes(longText.begin() + 48, longText.begin() + 54),
              (Bytes{5, 0xFF, 6, 0x81, 0x48, 'x'}));
    EXPECT_EQ(longText.size(), 22U + 7 + 19 + 5 + 200 + 4);

    // Without a first marker name of its own, the first marker carries the marker name.
    EXPECT_EQ(assembled({10, 20}, "cut", std::nullopt), assembled({10, 20}, "cut", "cut"));
    EXPECT_EQ(assembled({10, 20}, "cut", ""), assembled({10, 20}, "cut", "cut"));
}

// The workstation layout's preamble after the track name: the frame-rate event (7D, "Kestrin",
// version 1, numerator and denominator in 16 bits, drop-frame flag), then controller 3 = 0 on
// channel 16. The header says 9600 ticks per quarter note and the tempo 120 beats per minute.
TEST(MIDIMarkerFile, WorkstationLayoutCarriesTheRateAndAChannelEvent)
{
    const std::pair<MIDIFrameRate, Bytes> rows[] = {
        {MIDIFrameRate::Fps25, {0x00, 0x19, 0x00, 0x01, 0x00}},
        {MIDIFrameRate::Fps2997DropFrame, {0x75, 0x30, 0x03, 0xE9, 0x01}},
        {MIDIFrameRate::Fps2997NonDrop, {0x75, 0x30, 0x03, 0xE9, 0x00}},
        {MIDIFrameRate::Fps23976, {0x5D, 0xC0, 0x03, 0xE9, 0x00}},
        {MIDIFrameRate::Fps5994DropFrame, {0xEA, 0x60, 0x03, 0xE9, 0x01}},
    };
    for (const auto& [rate, rateBytes] : rows) {
        const Bytes file = assembleMarkerFile(std::vector<std::uint64_t>{7},
                                              "m",
                                              std::nullopt,
                                              MarkerFileLayout::Workstation,
                                              rate)
                               .value();
        Bytes expected = {
            0x25, 0x80, 'M', 'T', 'r', 'k', 0, 0, 0, 57, 0x00, 0xFF, 0x51, 0x03, 0x07, 0xA1, 0x20};
        EXPECT_EQ(Bytes(file.begin() + 12, file.begin() + 29), expected) << static_cast<int>(rate);
        expected = {0x00, 0xFF, 0x7F, 0x0E, 0x7D, 'K', 'e', 's', 't', 'r', 'i', 'n', 0x01};
        expected.insert(expected.end(), rateBytes.begin(), rateBytes.end());
        expected.insert(expected.end(), {0x00, 0xBF, 0x03, 0x00, 0x07, 0xFF, 0x06, 0x01, 'm'});
        EXPECT_EQ(Bytes(file.begin() + 48, file.end() - 4), expected) << static_cast<int>(rate);
    }
}

TEST(MIDIMarkerFile, TextPerMarker)
{
    // The same texts give the same bytes as one marker name does.
    const std::vector<std::uint64_t> ticks = {10, 20, 30};
    const std::vector<std::string> same = {"VIDEO START", "cut", "cut"};
    EXPECT_EQ(assembled(ticks, same), assembled(ticks, "cut", "VIDEO START"));

    // Each marker carries its own text: the second of {a, bc} starts after delta 5, FF 06 02.
    const std::vector<std::string> own = {"a", "bc"};
    const Bytes file = assembled({0, 5}, own);
    EXPECT_EQ(Bytes(file.begin() + 53, file.begin() + 59), (Bytes{5, 0xFF, 6, 2, 'b', 'c'}));

    EXPECT_EQ(assembleMarkerFile(ticks, own, kPlain, kRate).error().code, kNameCountCode);
    const std::vector<std::string> tooLong = {"V", std::string(kMaxTextBytes + 1, 'a'), "c"};
    EXPECT_EQ(assembleMarkerFile(ticks, tooLong, kPlain, kRate).error().code, kTextTooLongCode);
}

TEST(MIDIMarkerFile, TextsLongerThan255BytesAreRefused)
{
    const std::string longest(kMaxTextBytes, 'a');
    const std::string tooLong(kMaxTextBytes + 1, 'a');
    const std::vector<std::uint64_t> two = {0, 1};
    EXPECT_TRUE(assembleMarkerFile(two, longest, longest, kPlain, kRate).hasValue());
    // A text no event carries does not matter.
    EXPECT_TRUE(
        assembleMarkerFile(std::vector<std::uint64_t>{0}, tooLong, "V", kPlain, kRate).hasValue());

    // As the first marker's own text, as the text of later markers, and as the fallback.
    const std::pair<std::string_view, std::optional<std::string_view>> refused[] = {
        {"cut", tooLong}, {tooLong, "VIDEO START"}, {tooLong, std::nullopt}};
    for (const auto& [markerName, firstMarkerName] : refused) {
        const core::Expected<Bytes> file =
            assembleMarkerFile(two, markerName, firstMarkerName, kPlain, kRate);
        ASSERT_FALSE(file.hasValue());
        EXPECT_EQ(file.error().domain, "MIDI");
        EXPECT_EQ(file.error().code, kTextTooLongCode);
        EXPECT_NE(file.error().description.find("256 bytes"), std::string::npos)
            << file.error().description;
    }
}

}  // namespace
}  // namespace kestrin::midi
