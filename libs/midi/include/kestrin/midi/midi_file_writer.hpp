#pragma once

#include <kestrin/core/error.hpp>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace kestrin::midi {

/// Ticks per quarter note of every file Kestrin writes (the header's division).
inline constexpr std::int64_t kTicksPerQuarter = 19200;
/// Microseconds per quarter note (the tempo event): 60 beats per minute, so one second holds
/// kTicksPerQuarter ticks.
inline constexpr std::int64_t kTempoUSPerQuarter = 1000000;
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

/// The bytes of a Standard MIDI File (format 1, one track, kTicksPerQuarter ticks per quarter
/// note) whose track holds, in order: a tempo event of kTempoUSPerQuarter, a track name event
/// kTrackName, one marker event per element of `tickDeltas` at that delta in ticks, and the end of
/// the track. The first marker's text is `firstMarkerName`, or `markerName` when that is absent or
/// empty; every later marker's text is `markerName`. Texts are written as given (UTF-8), each after
/// its length in bytes as a variable-length quantity: one byte up to 127 bytes, two from 128 on.
/// An empty `tickDeltas` gives a track without markers.
///
/// Fails, writing nothing, with domain kMIDIErrorDomain and
///  - kTextTooLongCode when a marker text that would be written is longer than kMaxTextBytes
///    bytes (the description names the text and its length);
///  - kTrackTooLongCode when the track's events would exceed 2^32 - 1 bytes.
[[nodiscard]] core::Expected<std::vector<std::uint8_t>> assembleMarkerFile(
    std::span<const std::uint64_t> tickDeltas,
    std::string_view markerName,
    std::optional<std::string_view> firstMarkerName);

/// As above, with a text of its own for every marker: marker i carries `markerNames[i]` (the
/// first is normally "VIDEO START"). With the texts of the overload above the bytes are the same.
///
/// Fails, writing nothing, as above (kTextTooLongCode for any text longer than kMaxTextBytes
/// bytes), and with kNameCountCode when there are not exactly as many texts as tick deltas.
[[nodiscard]] core::Expected<std::vector<std::uint8_t>> assembleMarkerFile(
    std::span<const std::uint64_t> tickDeltas, std::span<const std::string> markerNames);

}  // namespace kestrin::midi
