#pragma once

#include <kestrin/midi/midi_export_service.hpp>
#include <kestrin/midi/midi_file_writer.hpp>

#include <optional>

namespace kestrin::midi {

/// The exporter Kestrin uses: builds the file in memory with assembleMarkerFile, in the layout it
/// was made with (19200 ticks per second either way). Writing it is the caller's (through
/// core::writeFileSafely). Holds nothing but its layout; any thread.
class StandardMIDIExportService final : public MIDIExportService
{
public:
    /// Writes `layout`.
    explicit StandardMIDIExportService(MarkerFileLayout layout = MarkerFileLayout::Workstation);

    /// Ticks per quarter note: 9600 in the workstation layout, 19200 in the plain one.
    [[nodiscard]] std::int64_t ppq() const;
    /// Microseconds per quarter note: 500000 in the workstation layout, 1000000 in the plain one.
    [[nodiscard]] std::int64_t tempoUSPerQuarter() const;

    /// As MIDIExportService::exportMarkerFile: converts the frames to tick deltas and assembles
    /// the file. Fails only for a marker text longer than kMaxTextBytes bytes (domain "MIDI",
    /// kTextTooLongCode).
    [[nodiscard]] core::Expected<std::vector<std::uint8_t>> exportMarkerFile(
        const std::vector<std::int64_t>& frameDeltas,
        MIDIFrameRate rate,
        std::string_view markerName,
        std::optional<std::string_view> firstMarkerName,
        std::int64_t startOffsetFrames,
        std::int64_t firstGapFrames) override;

    /// As MIDIExportService::exportNamedMarkerFile; fails as exportMarkerFile does, and with
    /// kNameCountCode for a wrong count of texts.
    [[nodiscard]] core::Expected<std::vector<std::uint8_t>> exportNamedMarkerFile(
        const std::vector<std::int64_t>& frameDeltas,
        MIDIFrameRate rate,
        std::int64_t startOffsetFrames,
        std::span<const std::string> markerNames) override;

private:
    // Immutable after construction.
    MarkerFileLayout layout_;
};

}  // namespace kestrin::midi
