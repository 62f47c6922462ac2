#pragma once

#include <kestrin/core/error.hpp>
#include <kestrin/midi/midi_frame_rate.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrin::midi {

/// How a marker file is laid out. Both layouts hold 19200 ticks per second, so the same tick
/// deltas place the markers at the same times.
enum class MarkerFileLayout : std::uint8_t {
    /// What sound workstations keep: 9600 ticks per quarter note at 120 beats per minute (so the
    /// markers land in place in a session at the usual 120 whether or not the workstation takes
    /// the file's tempo), and ahead of the markers Kestrin's frame-rate event and one channel
    /// event that no instrument acts on (a workstation may drop a track without channel events,
    /// markers and all). docs/architecture.md shows the bytes.
    Workstation,
    /// Tempo, track name and markers only: 19200 ticks per quarter note at 60 beats per minute.
    Plain,
};

/// Ticks per quarter note of the plain layout (the header's division).
inline constexpr std::int64_t kTicksPerQuarter = 19200;
/// Microseconds per quarter note of the plain layout (the tempo event): 60 beats per minute, so
/// one second holds kTicksPerQuarter ticks.
inline constexpr std::int64_t kTempoUSPerQuarter = 1000000;
/// Ticks per quarter note of the workstation layout.
inline constexpr std::int64_t kWorkstationTicksPerQuarter = 9600;
/// Microseconds per quarter note of the workstation layout: 120 beats per minute, so one second
/// holds 19200 ticks here too.
inline constexpr std::int64_t kWorkstationTempoUSPerQuarter = 500000;
/// The text of the track name event.
inline constexpr std::string_view kTrackName = "Kestrin Markers";
/// The longest text, in UTF-8 bytes, that the writer puts in a text event.
inline constexpr std::size_t kMaxTextBytes = 255;

/// The error domain of the writer's own refusals.
inline constexpr std::string_view kMIDIErrorDomain = "MIDI";
/// Error code: a marker text is longer than kMaxTextBytes bytes.
inline constexpr std::int64_t kTextTooLongCode = 1;
/// Error code: the track's events do not fit the 32-bit length of the track chunk.
inline constexpr std::int64_t kTrackTooLongCode = 2;
/// Error code: the number of marker texts differs from the number of marker events.
inline constexpr std::int64_t kNameCountCode = 3;

/// `value` as a MIDI variable-length quantity: groups of 7 bits, most significant first, every
/// byte but the last with its top bit set; 0 is the single byte 00 (127 -> 7F, 128 -> 81 00,
/// 192000 -> 8B DC 00). Any value is encoded this way, in 1 to 10 bytes. A Standard MIDI File
/// allows at most 4 bytes (0x0FFFFFFF, about 3.9 hours at 19200 ticks per second); readers may
/// reject a longer delta time, so a caller that cares must keep its values within that.
[[nodiscard]] std::vector<std::uint8_t> encodeVariableLengthQuantity(std::uint64_t value);

/// The bytes of a Standard MIDI File (format 1, one track) in `layout` whose track holds, in
/// order: a tempo event, a track name event kTrackName, in the workstation layout Kestrin's
/// frame-rate event for `rate` and the silent channel event, one marker event per element of
/// `tickDeltas` at that delta in ticks (19200 ticks per second), and the end of the track. The
/// first marker's text is `firstMarkerName`, or `markerName` when that is absent or empty; every
/// later marker's text is `markerName`. Texts are written as given (UTF-8), each after its length
/// in bytes as a variable-length quantity: one byte up to 127 bytes, two from 128 on. An empty
/// `tickDeltas` gives a track without markers. `rate` matters to the workstation layout only.
///
/// Fails, writing nothing, with domain kMIDIErrorDomain and
///  - kTextTooLongCode when a marker text that would be written is longer than kMaxTextBytes
///    bytes (the description names the text and its length);
///  - kTrackTooLongCode when the track's events would exceed 2^32 - 1 bytes.
[[nodiscard]] core::Expected<std::vector<std::uint8_t>> assembleMarkerFile(
    std::span<const std::uint64_t> tickDeltas,
    std::string_view markerName,
    std::optional<std::string_view> firstMarkerName,
    MarkerFileLayout layout,
    MIDIFrameRate rate);

/// As above, with a text of its own for every marker: marker i carries `markerNames[i]` (the
/// first is normally "VIDEO START"). With the texts of the overload above the bytes are the same.
///
/// Fails, writing nothing, as above (kTextTooLongCode for any text longer than kMaxTextBytes
/// bytes), and with kNameCountCode when there are not exactly as many texts as tick deltas.
[[nodiscard]] core::Expected<std::vector<std::uint8_t>> assembleMarkerFile(
    std::span<const std::uint64_t> tickDeltas,
    std::span<const std::string> markerNames,
    MarkerFileLayout layout,
    MIDIFrameRate rate);

}  // namespace kestrin::midi
