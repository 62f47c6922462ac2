#pragma once

#include <kestrin/midi/midi_export_service.hpp>
#include <kestrin/midi/midi_file_writer.hpp>

#include <filesystem>
#include <optional>

namespace kestrin::midi {

/// The exporter Kestrin uses: builds the file with assembleMarkerFile at kTicksPerQuarter ticks
/// per quarter note and kTempoUSPerQuarter microseconds per quarter note (19200 ticks per second),
/// then passes the bytes once through a temporary file and returns what it reads back.
///
/// Holds nothing between calls beyond the directory it was given; for the interface thread (one
/// call at a time), where exportMarkerFile runs synchronously, file input and output included.
class StandardMIDIExportService final : public MIDIExportService
{
public:
    /// Uses the user's temporary directory ($TMPDIR, else /tmp), looked up at each export.
    StandardMIDIExportService() = default;
    /// Uses `temporaryDirectory` for the round trip instead; it must exist when exporting.
    explicit StandardMIDIExportService(std::filesystem::path temporaryDirectory);

    /// Ticks per quarter note: 19200.
    [[nodiscard]] static constexpr std::int64_t ppq() { return kTicksPerQuarter; }
    /// Microseconds per quarter note: 1000000.
    [[nodiscard]] static constexpr std::int64_t tempoUSPerQuarter() { return kTempoUSPerQuarter; }

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

private:
    std::optional<std::filesystem::path> temporaryDirectory_;  ///< immutable after construction
};

}  // namespace kestrin::midi
