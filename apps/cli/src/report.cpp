#include "report.hpp"

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

std::string modeName(core::ScanMode mode)
{
    return mode == core::ScanMode::trustedKeyframes ? "trustedKeyframes" : "noKeyframes";
}

}  // namespace

std::string jsonString(std::string_view text)
{
    static constexpr std::string_view kHex = "0123456789abcdef";
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
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
    return line + "}";
}

std::string humanLine(const VideoReport& report)
{
    const std::string file = report.file.string();
    if (report.error) {
        return "kestrin-scan: " + file + ": " + report.error->description;
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
    return line;
}

}  // namespace kestrin::cli
