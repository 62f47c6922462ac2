#include <kestrin/core/safe_file.hpp>
#include <kestrin/midi/standard_midi_export_service.hpp>

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <span>
#include <string>
#include <tuple>
#include <vector>

#include <unistd.h>

namespace kestrin::midi {
namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<std::uint8_t>;

/// Success when the byte strings are equal; otherwise both in hex, 16 bytes a line side by side
/// (expected | actual), the lines that differ marked "!".
::testing::AssertionResult bytesEqual(std::span<const std::uint8_t> expected,
                                      std::span<const std::uint8_t> actual)
{
    if (std::ranges::equal(expected, actual)) {
        return ::testing::AssertionSuccess();
    }
    auto result = ::testing::AssertionFailure()
                  << "expected " << expected.size() << " bytes, got " << actual.size() << ":\n";
    for (std::size_t at = 0; at < std::max(expected.size(), actual.size()); at += 16) {
        std::string lines[2];
        char hex[24];
        for (int side = 0; side < 2; ++side) {
            const std::span<const std::uint8_t> bytes = side == 0 ? expected : actual;
            for (std::size_t i = at; i < std::min(bytes.size(), at + 16); ++i) {
                std::snprintf(hex, sizeof hex, " %02X", bytes[i]);
                lines[side] += hex;
            }
        }
        std::snprintf(hex, sizeof hex, "%04zx:", at);
        result << (lines[0] == lines[1] ? "  " : "! ") << hex << lines[0]
               << std::string(48 - lines[0].size(), ' ') << " |" << lines[1] << "\n";
    }
    return result;
}

// A fresh directory per test, so the tests can see what an export leaves behind.
class StandardMIDIExport : public ::testing::Test
{
protected:
    void SetUp() override { fs::create_directories(directory_); }
    void TearDown() override { fs::remove_all(directory_); }

    static core::Expected<Bytes> exportWorkedExample(StandardMIDIExportService service,
                                                     const std::string& markerName = " ")
    {
        return service.exportMarkerFile(
            {100}, MIDIFrameRate::Fps25, markerName, "VIDEO START", 250, 0);
    }

    const fs::path directory_ =
        fs::path(::testing::TempDir()) / ("kestrin_midi_" + std::to_string(::getpid()));
};

Bytes goldenFile(const char* name)
{
    std::ifstream golden(std::string(KESTRIN_MIDI_TEST_DATA_DIR "/") + name, std::ios::binary);
    return {std::istreambuf_iterator<char>(golden), {}};
}

TEST_F(StandardMIDIExport, WorkedExampleIsTheGoldenFileInEitherLayout)
{
    const core::Expected<Bytes> file =
        exportWorkedExample(StandardMIDIExportService(MarkerFileLayout::Plain));
    ASSERT_TRUE(file.hasValue()) << file.error().description;
    EXPECT_TRUE(bytesEqual(goldenFile("worked_example_25fps.mid"), *file));

    StandardMIDIExportService workstation(MarkerFileLayout::Workstation);
    const std::vector<std::string> names = {"VIDEO START", "Cut 1"};
    const core::Expected<Bytes> named =
        workstation.exportNamedMarkerFile({100}, MIDIFrameRate::Fps25, 250, names);
    ASSERT_TRUE(named.hasValue()) << named.error().description;
    EXPECT_TRUE(bytesEqual(goldenFile("worked_example_25fps_workstation.mid"), *named));
    EXPECT_EQ(workstation.exportNamedMarkerFile({100}, MIDIFrameRate::Fps25, 250, {names.data(), 1})
                  .error()
                  .code,
              kNameCountCode);
    const core::Expected<Bytes> tooLong =
        exportWorkedExample(StandardMIDIExportService(), std::string(300, 'x'));
    ASSERT_FALSE(tooLong.hasValue());
    EXPECT_EQ(tooLong.error().code, kTextTooLongCode);
    EXPECT_NE(tooLong.error().description.find("300 bytes"), std::string::npos);
}

// What `command` prints for the file at `path`.
std::string outputOf(const std::string& command, const fs::path& path)
{
    std::string output;
    FILE* pipe = ::popen((command + " '" + path.string() + "'").c_str(), "r");
    std::array<char, 4096> buffer{};
    while (const std::size_t count = pipe ? std::fread(buffer.data(), 1, buffer.size(), pipe) : 0) {
        output.append(buffer.data(), count);
    }
    EXPECT_TRUE(pipe != nullptr && ::pclose(pipe) == 0) << command << " printed:\n" << output;
    return output;
}

// An export read back by two independent MIDI readers installed with the system, in both layouts.
// 29.97 non-drop: Video Start 107892 frames after Session Start, an extra first gap of 1, then
// edits whose distances make deltas of 128 ticks and more. Each marker must land on the absolute
// tick of its frame sum (107892, 107893, 108093, 108096, 126078) times 640.64, rounded, in both.
TEST_F(StandardMIDIExport, IndependentReadersSeeTempoTrackNameAndEveryMarker)
{
    const bool haveMidicsv = ::access("/usr/bin/midicsv", X_OK) == 0;
    // The system interpreter: the one with the Debian package of mido.
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    const bool haveMido = std::system("/usr/bin/python3 -c 'import mido' 2>/dev/null") == 0;
    if (!haveMidicsv || !haveMido) {
        GTEST_SKIP() << "midicsv or /usr/bin/python3 with mido is not installed";
    }
    struct Row
    {
        MarkerFileLayout layout;
        std::string csvHead;
        std::string midoHead;
    };
    const Row rows[] = {
        {MarkerFileLayout::Plain,
         "0, 0, Header, 1, 1, 19200\n1, 0, Start_track\n1, 0, Tempo, 1000000\n"
         "1, 0, Title_t, \"Kestrin Markers\"\n",
         "set_tempo 0 1000000\ntrack_name 0 Kestrin Markers\n"},
        // 30000 / 1001 is 75 30 / 03 E9; flags 0: non-drop.
        {MarkerFileLayout::Workstation,
         "0, 0, Header, 1, 1, 9600\n1, 0, Start_track\n1, 0, Tempo, 500000\n"
         "1, 0, Title_t, \"Kestrin Markers\"\n"
         "1, 0, Sequencer_specific, 14, 125, 75, 101, 115, 116, 114, 105, 110, 1, 117, 48, 3, "
         "233, 0\n1, 0, Control_c, 15, 3, 0\n",
         "set_tempo 0 500000\ntrack_name 0 Kestrin Markers\nsequencer_specific 0 \n"
         "control_change 0 \n"},
    };
    for (const Row& row : rows) {
        StandardMIDIExportService service(row.layout);
        const core::Expected<Bytes> file = service.exportMarkerFile(
            {200, 3, 17982}, MIDIFrameRate::Fps2997NonDrop, "Schnitt ä", "VIDEO START", 107892, 1);
        ASSERT_TRUE(file.hasValue()) << file.error().description;
        const fs::path path = directory_ / "markers.mid";
        ASSERT_TRUE(core::writeFileSafely(path, *file).ok());

        std::string csv = row.csvHead;
        std::string mido = row.midoHead;
        for (const std::uint64_t tick : {69119931U, 69120572U, 69248700U, 69250621U, 80770610U}) {
            const std::string text = tick == 69119931 ? "VIDEO START" : "Schnitt ä";
            csv += "1, " + std::to_string(tick) + ", Marker_t, \"" + text + "\"\n";
            mido += "marker " + std::to_string(tick) + " " + text + "\n";
        }
        EXPECT_EQ(outputOf("/usr/bin/midicsv", path),
                  csv + "1, 80770610, End_track\n0, 0, End_of_file\n");
        const std::string script =
            "import sys, mido\n"
            "tick = 0\n"
            "for m in mido.MidiFile(sys.argv[1], charset=\"utf-8\").tracks[0]:\n"
            "    tick += m.time\n"
            "    print(m.type, tick, getattr(m, \"tempo\", getattr(m, \"name\", getattr(m, "
            "\"text\", \"\"))))\n";
        EXPECT_EQ(outputOf("PYTHONIOENCODING=utf-8 /usr/bin/python3 -c '" + script + "'", path),
                  mido + "end_of_track 80770610 \n");
    }
}

}  // namespace
}  // namespace kestrin::midi
