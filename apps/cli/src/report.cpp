#include "report.hpp"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace kestrin::cli {

namespace {

template <typename Number>
std::string shortest(Number value)
{
    if (!std::isfinite(value)) {
        return "null";
    }
    std::array<char, 64> buffer{};
    const auto result = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
    return {buffer.data(), result.ptr};
}

// A written file's name as the human line shows it.
std::string shownPath(const std::filesystem::path& path)
{
    return path == kStandardOutput ? "standard output" : path.string();
}

// The length of the well-formed UTF-8 sequence at the start of `text` (1 to 4), or 0 when none
// starts there: a stray continuation byte, an overlong form, a surrogate, a code point above
// U+10FFFF, a sequence cut short.
std::size_t sequenceLength(std::string_view text)
{
    const auto byte = [&](std::size_t i) {
        return static_cast<unsigned char>(text[i]);
    };
    const unsigned char lead = byte(0);
    if (lead < 0x80) {
        return 1;
    }
    // The lead byte gives the length and the range of the second byte (the table of well-formed
    // sequences in the Unicode standard, chapter 3).
    std::size_t length = 0;
    unsigned char low = 0x80;
    unsigned char high = 0xBF;
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        low = lead == 0xE0 ? 0xA0 : low;
        high = lead == 0xED ? 0x9F : high;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        low = lead == 0xF0 ? 0x90 : low;
        high = lead == 0xF4 ? 0x8F : high;
    } else {
        return 0;
    }
    if (text.size() < length || byte(1) < low || byte(1) > high) {
        return 0;
    }
    for (std::size_t i = 2; i < length; ++i) {
        if ((byte(i) & 0xC0U) != 0x80) {
            return 0;
        }
    }
    return length;
}

// The code point of the well-formed sequence of `length` bytes at the start of `text`.
char32_t codePoint(std::string_view text, std::size_t length)
{
    constexpr std::array<unsigned char, 5> kLeadBits = {0, 0x7F, 0x1F, 0x0F, 0x07};
    char32_t point = static_cast<unsigned char>(text[0]) & kLeadBits.at(length);
    for (std::size_t i = 1; i < length; ++i) {
        point = (point << 6U) | (static_cast<unsigned char>(text[i]) & 0x3FU);
    }
    return point;
}

// Whether a terminal may act on `point` instead of showing it: the C1 controls (U+0080 to
// U+009F), which some take as the start of an escape sequence, and the bidirectional formatting
// marks, which reorder what follows them so that a name reads as another.
bool isHiddenControl(char32_t point)
{
    return (point >= 0x80 && point < 0xA0) || point == 0x061C || point == 0x200E || point == 0x200F
           || (point >= 0x202A && point <= 0x202E) || (point >= 0x2066 && point <= 0x2069);
}

constexpr std::string_view kHex = "0123456789abcdef";

std::string modeName(core::ScanMode mode)
{
    return mode == core::ScanMode::trustedKeyframes ? "trustedKeyframes" : "noKeyframes";
}

}  // namespace

std::string jsonString(std::string_view text)
{
    std::string out = "\"";
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        const auto byte = static_cast<unsigned char>(c);
        const std::size_t length = sequenceLength(text.substr(i));
        if (length == 0) {
            out += "\\ufffd";
            continue;
        }
        if (length > 1) {
            // Escaped too, so the line is safe on a terminal (all lie below U+10000).
            if (const char32_t point = codePoint(text.substr(i), length); isHiddenControl(point)) {
                out += "\\u";
                for (const unsigned shift : {12U, 8U, 4U, 0U}) {
                    out += kHex[(point >> shift) & 0xFU];
                }
            } else {
                out += text.substr(i, length);
            }
            i += length - 1;
            continue;
        }
        switch (c) {
            case '"':
                out += "\\\"";
                break;
            case '\\':
                out += "\\\\";
                break;
            case '\n':
                out += "\\n";
                break;
            case '\r':
                out += "\\r";
                break;
            case '\t':
                out += "\\t";
                break;
            default:
                if (byte < 0x20 || byte == 0x7F) {
                    out += "\\u00";
                    out += kHex[byte >> 4U];
                    out += kHex[byte & 0xFU];
                } else {
                    out += c;
                }
        }
    }
    return out + "\"";
}

std::string terminalText(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        const std::size_t length = sequenceLength(text.substr(i));
        const auto lead = static_cast<unsigned char>(text[i]);
        const bool isControl =
            (length == 1 && (lead < 0x20 || lead == 0x7F))
            || (length > 1 && isHiddenControl(codePoint(text.substr(i), length)));
        if (length != 0 && !isControl) {
            out += text.substr(i, length);
            i += length;
            continue;
        }
        for (const std::size_t end = i + std::max<std::size_t>(length, 1); i < end; ++i) {
            const auto byte = static_cast<unsigned char>(text[i]);
            out += "\\x";
            out += kHex[byte >> 4U];
            out += kHex[byte & 0xFU];
        }
    }
    return out;
}

std::string jsonLine(const VideoReport& report)
{
    std::string line = "{\"file\":" + jsonString(report.file.string());
    if (report.error) {
        return line + ",\"error\":" + jsonString(report.error->description) + "}";
    }
    line += ",\"mode\":" + jsonString(modeName(report.mode));
    line += ",\"nominalFPS\":" + shortest(report.nominalFPS);
    line += std::string(",\"dropFrame\":") + (report.dropFrame ? "true" : "false");
    line += ",\"markers\":[";
    for (std::size_t i = 0; i < report.cuts.size(); ++i) {
        const CutReport& cut = report.cuts[i];
        line += (i == 0 ? "" : ",");
        line += "{\"frameIndex\":" + std::to_string(cut.frameIndex) + ",\"seconds\":"
                + shortest(cut.seconds) + ",\"timecode\":" + jsonString(cut.timecode)
                + ",\"confidence\":" + (cut.confidence ? shortest(*cut.confidence) : "null") + "}";
    }
    line += "],\"midi\":";
    line += report.midi ? jsonString(report.midi->string()) : "null";
    line += ",\"cutList\":";
    line += report.cutList ? jsonString(report.cutList->string()) : "null";
    line += ",\"warnings\":[";
    if (report.damage) {
        const app::DamageSummary& damage = *report.damage;
        line += "{\"message\":" + jsonString(app::damageText(damage))
                + ",\"damagedFrames\":" + std::to_string(damage.damagedFrames) + ",\"cutShort\":"
                + (damage.isCutShort ? "true" : "false") + ",\"covered\":{\"from\":"
                + jsonString(damage.readFrom) + ",\"until\":" + jsonString(damage.readUntil)
                + ",\"seconds\":" + shortest(damage.readSeconds) + "},\"declared\":";
        line += damage.declaredUntil
                    ? "{\"until\":" + jsonString(*damage.declaredUntil)
                          + ",\"seconds\":" + shortest(damage.declaredSeconds.value_or(0.0)) + "}"
                    : "null";
        line += "}";
    }
    return line + "]}";
}

std::string warningLine(const VideoReport& report)
{
    if (report.error || !report.damage) {
        return "";
    }
    return terminalText("kestrin-scan: warning: " + report.file.string() + ": "
                        + app::damageText(*report.damage));
}

std::string humanLine(const VideoReport& report)
{
    const std::string file = report.file.string();
    if (report.error) {
        return terminalText("kestrin-scan: " + file + ": " + report.error->description);
    }
    std::string line =
        file + ": " + std::to_string(report.cuts.size())
        + (report.cuts.size() == 1 ? " cut" : " cuts")
        + (report.mode == core::ScanMode::trustedKeyframes ? " (keyframes)" : " (decoded)");
    if (report.midi) {
        line += " -> " + shownPath(*report.midi);
    }
    if (report.cutList) {
        line += (report.midi ? ", " : " -> ") + shownPath(*report.cutList);
    }
    return terminalText(line);
}

}  // namespace kestrin::cli
