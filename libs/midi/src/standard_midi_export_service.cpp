#include <kestrin/core/safe_file.hpp>
#include <kestrin/midi/marker_ticks.hpp>
#include <kestrin/midi/standard_midi_export_service.hpp>
#include <kestrin/midi/temporary_file.hpp>

#include <string>
#include <system_error>
#include <utility>

namespace kestrin::midi {

namespace {

core::Expected<std::filesystem::path> userTemporaryDirectory()
{
    std::error_code error;
    std::filesystem::path directory = std::filesystem::temp_directory_path(error);
    if (error) {
        return core::Error{"POSIX",
                           error.value(),
                           "Could not find the temporary directory: " + error.message() + "."};
    }
    return directory;
}

}  // namespace

StandardMIDIExportService::StandardMIDIExportService(MarkerFileLayout layout)
    : layout_(layout)
{}

StandardMIDIExportService::StandardMIDIExportService(MarkerFileLayout layout,
                                                     std::filesystem::path temporaryDirectory)
    : layout_(layout)
    , temporaryDirectory_(std::move(temporaryDirectory))
{}

std::int64_t StandardMIDIExportService::ppq() const
{
    return layout_ == MarkerFileLayout::Workstation ? kWorkstationTicksPerQuarter
                                                    : kTicksPerQuarter;
}

std::int64_t StandardMIDIExportService::tempoUSPerQuarter() const
{
    return layout_ == MarkerFileLayout::Workstation ? kWorkstationTempoUSPerQuarter
                                                    : kTempoUSPerQuarter;
}

core::Expected<std::vector<std::uint8_t>> StandardMIDIExportService::exportMarkerFile(
    const std::vector<std::int64_t>& frameDeltas,
    MIDIFrameRate rate,
    std::string_view markerName,
    std::optional<std::string_view> firstMarkerName,
    std::int64_t startOffsetFrames,
    std::int64_t firstGapFrames)
{
    const std::vector<std::int64_t> frameList =
        markerFrameList(frameDeltas, startOffsetFrames, firstGapFrames);
    const core::Expected<std::vector<std::uint8_t>> file = assembleMarkerFile(
        tickDeltasForFrames(frameList, rate), markerName, firstMarkerName, layout_, rate);
    if (!file) {
        return file.error();
    }
    return roundTrip(*file);
}

core::Expected<std::vector<std::uint8_t>> StandardMIDIExportService::exportNamedMarkerFile(
    const std::vector<std::int64_t>& frameDeltas,
    MIDIFrameRate rate,
    std::int64_t startOffsetFrames,
    std::span<const std::string> markerNames)
{
    const std::vector<std::int64_t> frameList = markerFrameList(frameDeltas, startOffsetFrames, 0);
    const core::Expected<std::vector<std::uint8_t>> file =
        assembleMarkerFile(tickDeltasForFrames(frameList, rate), markerNames, layout_, rate);
    if (!file) {
        return file.error();
    }
    return roundTrip(*file);
}

core::Expected<std::vector<std::uint8_t>> StandardMIDIExportService::roundTrip(
    const std::vector<std::uint8_t>& file) const
{
    core::Expected<std::filesystem::path> directory =
        temporaryDirectory_.has_value()
            ? core::Expected<std::filesystem::path>(*temporaryDirectory_)
            : userTemporaryDirectory();
    if (!directory) {
        return directory.error();
    }
    core::Expected<std::string> name = randomUUIDText();
    if (!name) {
        return name.error();
    }
    const std::filesystem::path path = *directory / (*name + ".mid");

    if (core::Status written = core::writeFileSafely(path, file); !written) {
        return written.error();
    }
    core::Expected<std::vector<std::uint8_t>> readBack = readWholeFile(path);
    if (!readBack) {
        return readBack.error();
    }
    // The bytes are already in memory; a file left behind in the temporary directory is harmless.
    std::error_code ignored;
    std::filesystem::remove(path, ignored);
    return readBack;
}

}  // namespace kestrin::midi
