#include "midi_test_support.hpp"

#include <kestrin/midi/standard_midi_export_service.hpp>
#include <kestrin/midi/temporary_file.hpp>

#include <gtest/gtest.h>

#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <regex>
#include <string>
#include <system_error>
#include <vector>

#include <unistd.h>

namespace kestrin::midi {
namespace {

namespace fs = std::filesystem;
using testing::bytesEqual;
using testing::MarkerEvent;
using testing::markerEvents;

// A fresh directory per test, so the tests can see what an export leaves behind.
class StandardMIDIExport : public ::testing::Test
{
protected:
    void SetUp() override
    {
        const ::testing::TestInfo* test = ::testing::UnitTest::GetInstance()->current_test_info();
        directory_ = fs::path(::testing::TempDir()) / "kestrin_midi"
                     / (std::string(test->name()) + "_" + std::to_string(::getpid()));
        fs::remove_all(directory_);
        fs::create_directories(directory_);
    }
    void TearDown() override { fs::remove_all(directory_); }

    [[nodiscard]] std::vector<std::string> entries() const
    {
        std::vector<std::string> names;
        for (const fs::directory_entry& entry : fs::directory_iterator(directory_)) {
            names.push_back(entry.path().filename().string());
        }
        return names;
    }

    // 29.97 non-drop: Video Start 107892 frames after Session Start, then edits whose distances
    // make deltas of 128 ticks and more, exported and copied to a file for a reader.
    std::string writeMultiMarkerFile()
    {
        StandardMIDIExportService service(directory_);
        const core::Expected<std::vector<std::uint8_t>> file =
            service.exportMarkerFile({1, 200, 3, 17982},
                                     MIDIFrameRate::Fps2997NonDrop,
                                     "Schnitt ä",
                                     "VIDEO START",
                                     107892,
                                     0);
        EXPECT_TRUE(file.hasValue()) << file.error().description;
        const fs::path path = directory_ / "markers.mid";
        testing::writeBytes(path, file ? *file : std::vector<std::uint8_t>{});
        return path.string();
    }

    fs::path directory_;
};

// The markers of writeMultiMarkerFile at absolute ticks: frame sums times 640.64, rounded.
//   frames  107892    107893    108093    108096    126078
const std::vector<std::pair<std::uint64_t, std::string>> kMultiMarkerTicks{
    {69119931, "VIDEO START"},
    {69120572, "Schnitt ä"},
    {69248700, "Schnitt ä"},
    {69250621, "Schnitt ä"},
    {80770610, "Schnitt ä"},
};

TEST_F(StandardMIDIExport, WorkedExampleRoundTripsThroughATemporaryFile)
{
    StandardMIDIExportService service(directory_);
    EXPECT_EQ(service.ppq(), 19200);
    EXPECT_EQ(service.tempoUSPerQuarter(), 1000000);
    const core::Expected<std::vector<std::uint8_t>> file =
        service.exportMarkerFile({100}, MIDIFrameRate::Fps25, " ", "VIDEO START", 250, 0);
    ASSERT_TRUE(file.hasValue()) << file.error().description;
    EXPECT_TRUE(bytesEqual(
        testing::readBytes(KESTRIN_MIDI_TEST_DATA_DIR "/worked_example_25fps.mid"), *file));
    EXPECT_TRUE(entries().empty()) << "left behind: " << ::testing::PrintToString(entries());
}

TEST_F(StandardMIDIExport, MarkerEventsFollowTheFrameList)
{
    StandardMIDIExportService service(directory_);
    struct Row
    {
        const char* name;
        std::vector<std::int64_t> frameDeltas;
        std::int64_t startOffsetFrames;
        std::int64_t firstGapFrames;
        std::vector<MarkerEvent> markers;
    };
    const Row rows[] = {
        {"no edits, offset 0", {}, 0, 0, {{0, "VIDEO START"}}},
        {"first gap 0 adds nothing", {2}, 1, 0, {{768, "VIDEO START"}, {1536, " "}}},
        {"negative first gap adds nothing", {2}, 1, -4, {{768, "VIDEO START"}, {1536, " "}}},
        {"first gap 5 adds a marker", {2}, 1, 5, {{768, "VIDEO START"}, {3840, " "}, {1536, " "}}},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const core::Expected<std::vector<std::uint8_t>> file =
            service.exportMarkerFile(row.frameDeltas,
                                     MIDIFrameRate::Fps25,
                                     " ",
                                     "VIDEO START",
                                     row.startOffsetFrames,
                                     row.firstGapFrames);
        ASSERT_TRUE(file.hasValue()) << file.error().description;
        EXPECT_EQ(markerEvents(*file), row.markers);
    }
}

TEST_F(StandardMIDIExport, UnusableTemporaryDirectoryFailsWithTheSystemError)
{
    const fs::path regularFile = directory_ / "regular";
    testing::writeBytes(regularFile, std::vector<std::uint8_t>{1});
    const struct
    {
        fs::path temporaryDirectory;
        int errorNumber;
    } rows[] = {{directory_ / "missing", ENOENT}, {regularFile / "sub", ENOTDIR}};
    for (const auto& row : rows) {
        SCOPED_TRACE(row.temporaryDirectory.string());
        StandardMIDIExportService service(row.temporaryDirectory);
        const core::Expected<std::vector<std::uint8_t>> file =
            service.exportMarkerFile({100}, MIDIFrameRate::Fps25, " ", "VIDEO START", 250, 0);
        ASSERT_FALSE(file.hasValue());
        EXPECT_EQ(file.error().domain, "POSIX");
        EXPECT_EQ(file.error().code, row.errorNumber);
        const std::string& description = file.error().description;
        EXPECT_NE(description.find(row.temporaryDirectory.string()), std::string::npos)
            << description;
        EXPECT_NE(description.find(std::generic_category().message(row.errorNumber)),
                  std::string::npos)
            << description;
    }
    EXPECT_EQ(entries(), std::vector<std::string>{"regular"});
}

TEST_F(StandardMIDIExport, UnusableUserTemporaryDirectoryIsAnErrorNotAnException)
{
    testing::writeBytes(directory_ / "regular", std::vector<std::uint8_t>{1});
    // The environment is only touched while this test runs alone on its one thread.
    const char* previous = std::getenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe)
    const std::optional<std::string> saved =
        previous != nullptr ? std::optional<std::string>(previous) : std::nullopt;
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    ::setenv("TMPDIR", (directory_ / "regular" / "sub").c_str(), 1);
    const core::Expected<std::vector<std::uint8_t>> file =
        StandardMIDIExportService().exportMarkerFile(
            {100}, MIDIFrameRate::Fps25, " ", "VIDEO START", 250, 0);
    if (saved.has_value()) {
        ::setenv("TMPDIR", saved->c_str(), 1);  // NOLINT(concurrency-mt-unsafe)
    } else {
        ::unsetenv("TMPDIR");  // NOLINT(concurrency-mt-unsafe)
    }

    ASSERT_FALSE(file.hasValue());
    EXPECT_EQ(file.error().code, ENOTDIR);
    EXPECT_NE(file.error().description.find("temporary directory"), std::string::npos);
}

TEST_F(StandardMIDIExport, TooLongTextIsRefusedBeforeAnyFileIsWritten)
{
    // The directory does not exist, so only a check made before touching it can give a MIDI error.
    StandardMIDIExportService service(directory_ / "missing");
    const core::Expected<std::vector<std::uint8_t>> file = service.exportMarkerFile(
        {100}, MIDIFrameRate::Fps25, std::string(300, 'x'), "VIDEO START", 250, 0);
    ASSERT_FALSE(file.hasValue());
    EXPECT_EQ(file.error().domain, "MIDI");
    EXPECT_EQ(file.error().code, kTextTooLongCode);
    EXPECT_NE(file.error().description.find("300 bytes"), std::string::npos)
        << file.error().description;
}

TEST_F(StandardMIDIExport, FailedRenameLeavesNoSideFile)
{
    const fs::path target = directory_ / "target.mid";
    fs::create_directories(target / "occupied");
    const core::Status status = writeFileAtomically(target, std::vector<std::uint8_t>{1, 2, 3});
    ASSERT_FALSE(status.ok());
    EXPECT_EQ(status.error().domain, "POSIX");
    EXPECT_EQ(status.error().code, EISDIR);
    EXPECT_NE(status.error().description.find("target.mid.part"), std::string::npos)
        << status.error().description;
    EXPECT_EQ(entries(), std::vector<std::string>{"target.mid"});
}

TEST(MIDITemporaryFileName, RandomVersionFourUUIDInUppercase)
{
    std::array<std::uint8_t, 16> ones{};
    ones.fill(0xFF);
    EXPECT_EQ(uuidText(ones), "FFFFFFFF-FFFF-4FFF-BFFF-FFFFFFFFFFFF");
    EXPECT_EQ(uuidText({}), "00000000-0000-4000-8000-000000000000");

    const core::Expected<std::string> first = randomUUIDText();
    const core::Expected<std::string> second = randomUUIDText();
    ASSERT_TRUE(first.hasValue() && second.hasValue());
    const std::regex form("[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}");
    EXPECT_TRUE(std::regex_match(*first, form)) << *first;
    EXPECT_NE(*first, *second);
}

// The exported file is read back by two independent MIDI readers installed with the system.

std::string runCommand(const std::string& command)
{
    std::string output;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        ADD_FAILURE() << "could not run " << command;
        return output;
    }
    std::array<char, 4096> buffer{};
    while (const std::size_t count = std::fread(buffer.data(), 1, buffer.size(), pipe)) {
        output.append(buffer.data(), count);
    }
    EXPECT_EQ(::pclose(pipe), 0) << command << " printed:\n" << output;
    return output;
}

TEST_F(StandardMIDIExport, MidicsvReadsTempoTrackNameAndEveryMarker)
{
    if (::access("/usr/bin/midicsv", X_OK) != 0) {
        GTEST_SKIP() << "midicsv is not installed";
    }
    const std::string csv = runCommand("/usr/bin/midicsv '" + writeMultiMarkerFile() + "'");
    std::string expected =
        "0, 0, Header, 1, 1, 19200\n1, 0, Start_track\n1, 0, Tempo, 1000000\n"
        "1, 0, Title_t, \"Kestrin Markers\"\n";
    for (const auto& [tick, text] : kMultiMarkerTicks) {
        expected += "1, " + std::to_string(tick) + ", Marker_t, \"" + text + "\"\n";
    }
    expected += "1, 80770610, End_track\n0, 0, End_of_file\n";
    EXPECT_EQ(csv, expected);
}

TEST_F(StandardMIDIExport, MidoReadsTheSameMarkersAndTicks)
{
    // The system interpreter: the one with the Debian package of mido.
    // NOLINTNEXTLINE(concurrency-mt-unsafe)
    if (std::system("/usr/bin/python3 -c 'import mido' 2>/dev/null") != 0) {
        GTEST_SKIP() << "/usr/bin/python3 with mido is not installed";
    }
    const std::string script =
        "import sys, mido\n"
        "f = mido.MidiFile(sys.argv[1], charset=\"utf-8\")\n"
        "print(\"type\", f.type, \"tracks\", len(f.tracks), \"division\", f.ticks_per_beat)\n"
        "tick = 0\n"
        "for m in f.tracks[0]:\n"
        "    tick += m.time\n"
        "    value = {\"set_tempo\": \"tempo\", \"track_name\": \"name\", \"marker\": "
        "\"text\"}.get(m.type)\n"
        "    print(m.type, tick, getattr(m, value) if value else \"\")\n";
    const std::string output = runCommand("PYTHONIOENCODING=utf-8 /usr/bin/python3 -c '" + script
                                          + "' '" + writeMultiMarkerFile() + "'");
    std::string expected =
        "type 1 tracks 1 division 19200\nset_tempo 0 1000000\ntrack_name 0 Kestrin Markers\n";
    for (const auto& [tick, text] : kMultiMarkerTicks) {
        expected += "marker " + std::to_string(tick) + " " + text + "\n";
    }
    expected += "end_of_track 80770610 \n";
    EXPECT_EQ(output, expected);
}

}  // namespace
}  // namespace kestrin::midi
