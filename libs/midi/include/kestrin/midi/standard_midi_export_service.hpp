#pragma once

#include <kestrin/midi/midi_export_service.hpp>
#include <kestrin/midi/midi_file_writer.hpp>

#include <filesystem>
#include <optional>

namespace kestrin::midi {

/// The exporter Kestrin uses: builds the file with assembleMarkerFile in the layout it was made
/// with (19200 ticks per second either way), then passes the bytes once through a temporary file
/// and returns what it reads back.
///
/// Holds nothing between calls beyond its layout and the directory it was given; for the
/// interface thread (one call at a time), where the exports run synchronously, file input and
/// output included.
class StandardMIDIExportService final : public MIDIExportService
{
public:
    /// Writes `layout` and uses the user's temporary directory ($TMPDIR, else /tmp), looked up
    /// at each export.
    explicit StandardMIDIExportService(MarkerFileLayout layout = MarkerFileLayout::Workstation);
    /// Uses `temporaryDirectory` for the round trip instead; it must exist when exporting.
    StandardMIDIExportService(MarkerFileLayout layout, std::filesystem::path temporaryDirectory);

    /// Ticks per quarter note: 9600 in the workstation layout, 19200 in the plain one.
    [[nodiscard]] std::int64_t ppq() const;
    /// Microseconds per quarter note: 500000 in the workstation layout, 1000000 in the plain one.
    [[nodiscard]] std::int64_t tempoUSPerQuarter() const;

    /// As MIDIExportService::exportMarkerFile. The steps: convert the frames to tick deltas,
    /// assemble the file, write it atomically to "<random version 4 UUID>.mid" in the temporary
    /// directory, read it back, remove it, return the bytes read.
    ///
    /// Failures, each leaving no file behind unless said otherwise:
    ///  - a marker text longer than kMaxTextBytes bytes: domain "MIDI", kTextTooLongCode, before
    ///    any file is touched;
    ///  - the temporary directory cannot be found, or the file cannot be written (the directory
    ///    is missing, not a directory, not writable, the disk is full, ...): domain "POSIX", the
    ///    errno value as code, a description naming the step, the path and the system's text;
    ///  - the written file cannot be read back: likewise, and the file is left in place.
    /// A failure to remove the file afterwards is ignored.
    [[nodiscard]] core::Expected<std::vector<std::uint8_t>> exportMarkerFile(
        const std::vector<std::int64_t>& frameDeltas,
        MIDIFrameRate rate,
        std::string_view markerName,
        std::optional<std::string_view> firstMarkerName,
        std::int64_t startOffsetFrames,
        std::int64_t firstGapFrames) override;

    /// As MIDIExportService::exportNamedMarkerFile, with the steps and failures of
    /// exportMarkerFile.
    [[nodiscard]] core::Expected<std::vector<std::uint8_t>> exportNamedMarkerFile(
        const std::vector<std::int64_t>& frameDeltas,
        MIDIFrameRate rate,
        std::int64_t startOffsetFrames,
        std::span<const std::string> markerNames) override;

private:
    // The file's round trip through the temporary directory.
    core::Expected<std::vector<std::uint8_t>> roundTrip(
        const std::vector<std::uint8_t>& file) const;

    // Both immutable after construction.
    MarkerFileLayout layout_;
    std::optional<std::filesystem::path> temporaryDirectory_;
};

}  // namespace kestrin::midi
