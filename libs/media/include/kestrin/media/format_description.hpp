#pragma once

#include <cstdint>
#include <string>

namespace kestrin::media {

/// A four-character code, first character in the most significant byte ('avc1', 'apcn', 'tmcd').
using FourCC = std::uint32_t;

/// The code of a four-character literal: fourCC("avc1").
constexpr FourCC fourCC(const char (&text)[5])
{
    return (static_cast<FourCC>(static_cast<unsigned char>(text[0])) << 24U)
           | (static_cast<FourCC>(static_cast<unsigned char>(text[1])) << 16U)
           | (static_cast<FourCC>(static_cast<unsigned char>(text[2])) << 8U)
           | static_cast<FourCC>(static_cast<unsigned char>(text[3]));
}

/// The four bytes of `code`, most significant first, each as one character.
std::string fourCCText(FourCC code);

/// What kind of samples a track holds.
enum class MediaType : std::uint8_t { video, audio, timecode, subtitle, data, unknown };

/// Bit 0 of a timecode description's flags: the timecode counts drop-frame.
constexpr std::uint32_t kTimeCodeFlagDropFrame = 1U << 0U;

/// How a track's samples are encoded, as far as Kestrin needs to know.
struct FormatDescription
{
    MediaType mediaType = MediaType::unknown;
    /// The codec as a four-character code ('avc1', 'apcn', 'jpeg', 'tmcd', ...); 0 when unknown.
    FourCC mediaSubType = 0;
    /// For timecode descriptions: the flags of the timecode format (kTimeCodeFlagDropFrame, ...).
    std::uint32_t timeCodeFlags = 0;

    friend bool operator==(const FormatDescription&, const FormatDescription&) = default;
};

}  // namespace kestrin::media
