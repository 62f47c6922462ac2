#pragma once

#include <cstdint>
#include <string_view>
#include <vector>

namespace kestrin::midi {

/// The bytes of one exported MIDI file, as the save dialog writes them. A plain value: it does
/// not read files, and one made from nothing is empty.
struct MIDIFileDocument
{
    /// The extension of the files the save dialog offers, without the dot.
    static constexpr std::string_view kFileExtension = "mid";

    std::vector<std::uint8_t> data;

    friend bool operator==(const MIDIFileDocument&, const MIDIFileDocument&) = default;
};

}  // namespace kestrin::midi
