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

// Throws, failing the test, when the file is refused.
Bytes assembled(const std::vector<std::uint64_t>& ticks,
                std::string_view markerName,
                std::optional<std::string_view> firstMarkerName)
{
    return assembleMarkerFile(ticks, markerName, firstMarkerName).value();
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

TEST(MIDIMarkerFile, TextPerMarker)
{
    // The same texts give the same bytes as one marker name does.
    const std::vector<std::uint64_t> ticks = {10, 20, 30};
    const std::vector<std::string> same = {"VIDEO START", "cut", "cut"};
    EXPECT_EQ(assembleMarkerFile(ticks, same).value(), assembled(ticks, "cut", "VIDEO START"));

    // Each marker carries its own text: the second of {a, bc} starts after delta 5, FF 06 02.
    const std::vector<std::string> own = {"a", "bc"};
    const Bytes file = assembleMarkerFile(std::vector<std::uint64_t>{0, 5}, own).value();
    EXPECT_EQ(Bytes(file.begin() + 53, file.begin() + 59), (Bytes{5, 0xFF, 6, 2, 'b', 'c'}));

    EXPECT_EQ(assembleMarkerFile(ticks, own).error().code, kNameCountCode);
    const std::vector<std::string> tooLong = {"V", std::string(kMaxTextBytes + 1, 'a'), "c"};
    EXPECT_EQ(assembleMarkerFile(ticks, tooLong).error().code, kTextTooLongCode);
}

TEST(MIDIMarkerFile, TextsLongerThan255BytesAreRefused)
{
    const std::string longest(kMaxTextBytes, 'a');
    const std::string tooLong(kMaxTextBytes + 1, 'a');
    EXPECT_TRUE(assembleMarkerFile(std::vector<std::uint64_t>{0, 1}, longest, longest).hasValue());
    // A text no event carries does not matter.
    EXPECT_TRUE(assembleMarkerFile(std::vector<std::uint64_t>{0}, tooLong, "V").hasValue());

    // As the first marker's own text, as the text of later markers, and as the fallback.
    const std::pair<std::string_view, std::optional<std::string_view>> refused[] = {
        {"cut", tooLong}, {tooLong, "VIDEO START"}, {tooLong, std::nullopt}};
    for (const auto& [markerName, firstMarkerName] : refused) {
        const core::Expected<Bytes> file =
            assembleMarkerFile(std::vector<std::uint64_t>{0, 1}, markerName, firstMarkerName);
        ASSERT_FALSE(file.hasValue());
        EXPECT_EQ(file.error().domain, "MIDI");
        EXPECT_EQ(file.error().code, kTextTooLongCode);
        EXPECT_NE(file.error().description.find("256 bytes"), std::string::npos)
            << file.error().description;
    }
}

}  // namespace
}  // namespace kestrin::midi
