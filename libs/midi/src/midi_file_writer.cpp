#include <kestrin/midi/midi_file_writer.hpp>

#include <algorithm>
#include <array>
#include <limits>
#include <string>

namespace kestrin::midi {

namespace {

constexpr std::uint8_t kMetaEvent = 0xFF;
constexpr std::uint8_t kSetTempo = 0x51;
constexpr std::uint8_t kTrackNameEvent = 0x03;
constexpr std::uint8_t kMarker = 0x06;
constexpr std::uint8_t kEndOfTrack = 0x2F;
constexpr std::uint8_t kSequencerSpecific = 0x7F;

// Kestrin's frame-rate event (sequencer-specific): the manufacturer ID that MIDI reserves for
// non-commercial use, "Kestrin", the version of what follows, then the rate as a 16-bit
// numerator and denominator and a flags byte (bit 0: drop-frame timecode). Readers that do not
// know it skip it; our Ardour script takes the rate from it to place each marker on the exact
// sample of its frame.
constexpr std::uint8_t kNonCommercialID = 0x7D;
constexpr std::string_view kSignature = "Kestrin";
constexpr std::uint8_t kRateEventVersion = 1;
constexpr std::uint8_t kDropFrameFlag = 0x01;
// ID, signature, version, numerator, denominator, flags: 14 bytes.
constexpr auto kRateEventBytes = static_cast<std::uint8_t>(1 + kSignature.size() + 1 + 2 + 2 + 1);

// The channel event of the workstation layout: controller 3, which MIDI 1.0 leaves undefined, set
// to 0 on channel 16 (status B0 + 15). No instrument acts on an undefined controller, and channel
// 16 keeps it away from the channels instruments listen on by default.
constexpr std::array<std::uint8_t, 4> kSilentChannelEvent = {0x00, 0xBF, 0x03, 0x00};

// Bytes of the file before the track's events: "MThd", its length, format, track count and
// division, then "MTrk" and the track length.
constexpr std::size_t kHeaderBytes = 22;

void appendBigEndian(std::vector<std::uint8_t>& out, std::uint64_t value, int byteCount)
{
    for (int shift = 8 * (byteCount - 1); shift >= 0; shift -= 8) {
        out.push_back(static_cast<std::uint8_t>((value >> static_cast<unsigned>(shift)) & 0xFFU));
    }
}

void appendText(std::vector<std::uint8_t>& out, std::string_view text)
{
    for (const char c : text) {
        out.push_back(static_cast<std::uint8_t>(c));
    }
}

void appendTextEvent(std::vector<std::uint8_t>& out,
                     std::uint64_t deltaTicks,
                     std::uint8_t type,
                     std::string_view text)
{
    const std::vector<std::uint8_t> delta = encodeVariableLengthQuantity(deltaTicks);
    out.insert(out.end(), delta.begin(), delta.end());
    out.push_back(kMetaEvent);
    out.push_back(type);
    // Readers take a meta event's length as a variable-length quantity. Up to 127 bytes (every
    // text Kestrin writes) that is the one byte holding the count; from 128 on a single count
    // byte would have its top bit set and swallow the text's first byte, so it takes two.
    const std::vector<std::uint8_t> length = encodeVariableLengthQuantity(text.size());
    out.insert(out.end(), length.begin(), length.end());
    appendText(out, text);
}

core::Status checkTextLength(std::string_view role, std::string_view text)
{
    if (text.size() <= kMaxTextBytes) {
        return {};
    }
    return core::Error{std::string(kMIDIErrorDomain),
                       kTextTooLongCode,
                       "The " + std::string(role) + " is " + std::to_string(text.size())
                           + " bytes long; a MIDI text event holds at most "
                           + std::to_string(kMaxTextBytes) + " bytes."};
}

// The file with one marker event per element of `tickDeltas`, marker i carrying nameOf(i); the
// texts' lengths are checked by the caller.
template <typename NameOf>
core::Expected<std::vector<std::uint8_t>> assembleEvents(std::span<const std::uint64_t> tickDeltas,
                                                         const NameOf& nameOf,
                                                         MarkerFileLayout layout,
                                                         MIDIFrameRate rate)
{
    static_assert(kTrackName.size() <= kMaxTextBytes);
    const bool isWorkstation = layout == MarkerFileLayout::Workstation;

    std::vector<std::uint8_t> file;
    appendText(file, "MThd");
    appendBigEndian(file, 6, 4);
    appendBigEndian(file, 1, 2);  // format 1
    appendBigEndian(file, 1, 2);  // one track
    appendBigEndian(file, isWorkstation ? kWorkstationTicksPerQuarter : kTicksPerQuarter, 2);
    appendText(file, "MTrk");
    appendBigEndian(file, 0, 4);  // track length, filled in below

    file.insert(file.end(), {0x00, kMetaEvent, kSetTempo, 0x03});
    appendBigEndian(file, isWorkstation ? kWorkstationTempoUSPerQuarter : kTempoUSPerQuarter, 3);
    appendTextEvent(file, 0, kTrackNameEvent, kTrackName);
    if (isWorkstation) {
        const core::FrameRate fps = framesPerSecond(rate);
        file.insert(file.end(),
                    {0x00, kMetaEvent, kSequencerSpecific, kRateEventBytes, kNonCommercialID});
        appendText(file, kSignature);
        file.push_back(kRateEventVersion);
        appendBigEndian(file, static_cast<std::uint64_t>(fps.numerator), 2);
        appendBigEndian(file, static_cast<std::uint64_t>(fps.denominator), 2);
        file.push_back(isDropFrame(rate) ? kDropFrameFlag : 0);
        file.insert(file.end(), kSilentChannelEvent.begin(), kSilentChannelEvent.end());
    }
    for (std::size_t i = 0; i < tickDeltas.size(); ++i) {
        appendTextEvent(file, tickDeltas[i], kMarker, nameOf(i));
    }
    file.insert(file.end(), {0x00, kMetaEvent, kEndOfTrack, 0x00});

    const std::size_t trackBytes = file.size() - kHeaderBytes;
    if (trackBytes > std::numeric_limits<std::uint32_t>::max()) {
        return core::Error{std::string(kMIDIErrorDomain),
                           kTrackTooLongCode,
                           "The marker track is " + std::to_string(trackBytes)
                               + " bytes long; a MIDI track holds at most 4294967295 bytes."};
    }
    std::vector<std::uint8_t> length;
    appendBigEndian(length, trackBytes, 4);
    std::copy(length.begin(), length.end(), file.begin() + (kHeaderBytes - 4));
    return file;
}

}  // namespace

std::vector<std::uint8_t> encodeVariableLengthQuantity(std::uint64_t value)
{
    // 64 bits make at most ten groups of 7; collect them least significant first.
    std::array<std::uint8_t, 10> groups{};
    std::size_t count = 0;
    do {
        groups[count++] = static_cast<std::uint8_t>(value & 0x7FU);
        value >>= 7U;
    } while (value != 0);

    std::vector<std::uint8_t> bytes;
    bytes.reserve(count);
    while (count > 1) {
        bytes.push_back(static_cast<std::uint8_t>(groups[--count] | 0x80U));
    }
    bytes.push_back(groups[0]);
    return bytes;
}

core::Expected<std::vector<std::uint8_t>> assembleMarkerFile(
    std::span<const std::uint64_t> tickDeltas,
    std::string_view markerName,
    std::optional<std::string_view> firstMarkerName,
    MarkerFileLayout layout,
    MIDIFrameRate rate)
{
    const std::string_view firstName =
        firstMarkerName.has_value() && !firstMarkerName->empty() ? *firstMarkerName : markerName;
    if (!tickDeltas.empty()) {
        if (core::Status status = checkTextLength("first marker name", firstName); !status) {
            return status.error();
        }
    }
    if (tickDeltas.size() > 1) {
        if (core::Status status = checkTextLength("marker name", markerName); !status) {
            return status.error();
        }
    }
    return assembleEvents(
        tickDeltas, [&](std::size_t i) { return i == 0 ? firstName : markerName; }, layout, rate);
}

core::Expected<std::vector<std::uint8_t>> assembleMarkerFile(
    std::span<const std::uint64_t> tickDeltas,
    std::span<const std::string> markerNames,
    MarkerFileLayout layout,
    MIDIFrameRate rate)
{
    if (markerNames.size() != tickDeltas.size()) {
        return core::Error{std::string(kMIDIErrorDomain),
                           kNameCountCode,
                           std::to_string(markerNames.size()) + " marker names were given for "
                               + std::to_string(tickDeltas.size()) + " markers."};
    }
    for (const std::string& name : markerNames) {
        if (core::Status status = checkTextLength("marker name", name); !status) {
            return status.error();
        }
    }
    return assembleEvents(
        tickDeltas, [&](std::size_t i) { return std::string_view(markerNames[i]); }, layout, rate);
}

}  // namespace kestrin::midi
