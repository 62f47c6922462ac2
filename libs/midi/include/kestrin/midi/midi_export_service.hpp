#pragma once

#include <kestrin/core/error.hpp>
#include <kestrin/midi/midi_frame_rate.hpp>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrin::midi {

/// Turns the distances between edit markers into the bytes of a Standard MIDI File that a sound
/// workstation imports as markers. The view model holds its exporter through this interface, so
/// tests can give it a fake. Implementations belong to the interface thread.
class MIDIExportService
{
public:
    virtual ~MIDIExportService() = default;

    /// The bytes of a MIDI file with one marker event per distance: the first
    /// `startOffsetFrames` frames after time zero, then, when `firstGapFrames` is 1 or more, one
    /// that many frames after the first, then one per element of `frameDeltas` (frames since the
    /// marker before). Frames become ticks at the ticks per frame of `rate`, rounded on absolute
    /// positions (see tickDeltasForFrames); a marker that would land before the one ahead of it
    /// lands on it instead. The first marker's text is `firstMarkerName`, or `markerName` when that
    /// is absent or empty; all later markers carry `markerName`. Texts are UTF-8.
    ///
    /// Fails with the error that kept the file from being made: a text the file cannot hold. Never
    /// throws.
    [[nodiscard]] virtual core::Expected<std::vector<std::uint8_t>> exportMarkerFile(
        const std::vector<std::int64_t>& frameDeltas,
        MIDIFrameRate rate,
        std::string_view markerName,
        std::optional<std::string_view> firstMarkerName,
        std::int64_t startOffsetFrames,
        std::int64_t firstGapFrames) = 0;

    /// As exportMarkerFile without a first gap, with a text of its own for every marker event:
    /// `markerNames[0]` for the marker `startOffsetFrames` after time zero (normally "VIDEO
    /// START"), then `markerNames[i + 1]` for the marker of `frameDeltas[i]`.
    ///
    /// Fails as exportMarkerFile does, and with the writer's kNameCountCode error when there is
    /// not exactly one text more than there are frame deltas. Never throws.
    [[nodiscard]] virtual core::Expected<std::vector<std::uint8_t>> exportNamedMarkerFile(
        const std::vector<std::int64_t>& frameDeltas,
        MIDIFrameRate rate,
        std::int64_t startOffsetFrames,
        std::span<const std::string> markerNames) = 0;

protected:
    MIDIExportService() = default;
    MIDIExportService(const MIDIExportService&) = default;
    MIDIExportService& operator=(const MIDIExportService&) = default;
    MIDIExportService(MIDIExportService&&) = default;
    MIDIExportService& operator=(MIDIExportService&&) = default;
};

}  // namespace kestrin::midi
