#include "midi_test_support.hpp"

#include <kestrin/midi/midi_file_writer.hpp>

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <optional>
#include <string>
#include <vector>

namespace kestrin::midi {
namespace {

using testing::bytesEqual;
using testing::MarkerEvent;
using testing::markerEvents;

std::vector<std::uint8_t> assembled(const std::vector<std::uint64_t>& ticks,
                                    std::string_view markerName,
                                    std::optional<std::string_view> firstMarkerName)
{
    core::Expected<std::vector<std::uint8_t>> file =
        assembleMarkerFile(ticks, markerName, firstMarkerName);
    EXPECT_TRUE(file.hasValue()) << (file ? "" : file.error().description);
    return file ? *file : std::vector<std::uint8_t>{};
}

TEST(MIDIVariableLengthQuantity, SevenBitGroupsMostSignificantFirst)
{
    struct Row
    {
        std::uint64_t value;
        std::vector<std::uint8_t> bytes;
    };
    const Row rows[] = {
        {0, {0x00}},
        {127, {0x7F}},
        {128, {0x81, 0x00}},
        {16383, {0xFF, 0x7F}},
        {16384, {0x81, 0x80, 0x00}},
        {76800, {0x84, 0xD8, 0x00}},
        {192000, {0x8B, 0xDC, 0x00}},
        {0x0FFFFFFF, {0xFF, 0xFF, 0xFF, 0x7F}},  // the longest a MIDI file allows
        {0x10000000, {0x81, 0x80, 0x80, 0x80, 0x00}},
        {std::numeric_limits<std::uint64_t>::max(),
         {0x81, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}},
    };
    for (const Row& row : rows) {
        EXPECT_TRUE(bytesEqual(row.bytes, encodeVariableLengthQuantity(row.value)))
            << "value " << row.value;
    }
}

TEST(MIDIMarkerFile, WorkedExampleMatchesGoldenFile)
{
    const std::vector<std::uint8_t> golden =
        testing::readBytes(KESTRIN_MIDI_TEST_DATA_DIR "/worked_example_25fps.mid");
    ASSERT_EQ(golden.size(), 76U);
    EXPECT_TRUE(bytesEqual(golden, assembled({192000, 76800}, " ", "VIDEO START")));
}

TEST(MIDIMarkerFile, TrackLengthCountsTempoThroughEndOfTrack)
{
    const std::vector<std::uint8_t> file =
        assembled({0, 127, 128, 192000, 0x0FFFFFFF}, "Schnitt ä", "VIDEO START");
    ASSERT_GT(file.size(), 22U);
    const std::uint32_t length = (std::uint32_t{file[18]} << 24U) | (std::uint32_t{file[19]} << 16U)
                                 | (std::uint32_t{file[20]} << 8U) | file[21];
    EXPECT_EQ(length, file.size() - 22);
    const std::vector<std::uint8_t> tempo{0x00, 0xFF, 0x51, 0x03, 0x0F, 0x42, 0x40};
    EXPECT_TRUE(bytesEqual(tempo, std::span(file).subspan(22, tempo.size())));
    const std::vector<std::uint8_t> endOfTrack{0x00, 0xFF, 0x2F, 0x00};
    EXPECT_TRUE(bytesEqual(endOfTrack, std::span(file).last(endOfTrack.size())));
    EXPECT_EQ(markerEvents(file),
              (std::vector<MarkerEvent>{{0, "VIDEO START"},
                                        {127, "Schnitt ä"},
                                        {128, "Schnitt ä"},
                                        {192000, "Schnitt ä"},
                                        {0x0FFFFFFF, "Schnitt ä"}}));
}

TEST(MIDIMarkerFile, FirstMarkerCarriesMarkerNameWhenFirstNameAbsentOrEmpty)
{
    const std::optional<std::string_view> absent;
    for (const std::optional<std::string_view> firstName :
         {absent, std::optional<std::string_view>("")}) {
        EXPECT_EQ(markerEvents(assembled({10, 20}, "cut", firstName)),
                  (std::vector<MarkerEvent>{{10, "cut"}, {20, "cut"}}));
    }
    EXPECT_EQ(markerEvents(assembled({10, 20}, "cut", "VIDEO START")),
              (std::vector<MarkerEvent>{{10, "VIDEO START"}, {20, "cut"}}));
}

TEST(MIDIMarkerFile, TextLengthOf128BytesOrMoreTakesTwoLengthBytes)
{
    const std::string name(200, 'x');
    const std::vector<std::uint8_t> file = assembled({5}, name, std::nullopt);
    // After the track name: delta 05, FF 06, then 200 as a variable-length quantity.
    const std::vector<std::uint8_t> event{0x05, 0xFF, 0x06, 0x81, 0x48, 'x'};
    EXPECT_TRUE(bytesEqual(event, std::span(file).subspan(22 + 7 + 19, event.size())));
    EXPECT_EQ(markerEvents(file), (std::vector<MarkerEvent>{{5, name}}));
}

TEST(MIDIMarkerFile, TextsLongerThan255BytesAreRefused)
{
    const std::string longest(kMaxTextBytes, 'a');
    const std::string tooLong(kMaxTextBytes + 1, 'a');
    EXPECT_TRUE(assembleMarkerFile(std::vector<std::uint64_t>{0, 1}, longest, longest).hasValue());

    // As the first marker's own text, as the text of later markers, and as the fallback.
    const struct
    {
        std::string_view markerName;
        std::optional<std::string_view> firstMarkerName;
    } refused[] = {{"cut", tooLong}, {tooLong, "VIDEO START"}, {tooLong, std::nullopt}};
    for (const auto& row : refused) {
        const core::Expected<std::vector<std::uint8_t>> file = assembleMarkerFile(
            std::vector<std::uint64_t>{0, 1}, row.markerName, row.firstMarkerName);
        ASSERT_FALSE(file.hasValue());
        EXPECT_EQ(file.error().domain, "MIDI");
        EXPECT_EQ(file.error().code, kTextTooLongCode);
        EXPECT_NE(file.error().description.find("256 bytes"), std::string::npos)
            << file.error().description;
        EXPECT_NE(file.error().description.find("255"), std::string::npos);
    }
    // A text no event carries does not matter.
    EXPECT_TRUE(
        assembleMarkerFile(std::vector<std::uint64_t>{0}, tooLong, "VIDEO START").hasValue());
}

}  // namespace
}  // namespace kestrin::midi
