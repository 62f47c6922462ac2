#pragma once

// The panel's artwork: one list shared by the program that draws it at build time and by the
// library that loads it, so the two cannot disagree on a name or a size.

#include <array>
#include <cmath>
#include <string_view>

namespace kestrin::ui::detail {

/// Pixels per point of the drawn images.
inline constexpr double kArtScale = 2.0;

/// What an image shows; the drawing program picks its painter by it.
enum class ArtKind {
    Backplate,   ///< the rack front plate
    Label,       ///< engraved lettering on a transparent ground
    Logo,        ///< the product logo
    Led,         ///< one tall segment of the LED bar
    BigButton,   ///< a large square backlit button
    RateButton,  ///< a small backlit frame-rate button
    Lamp,        ///< the round keyframe lamp
};

/// One image: its resource name, size in points, what it shows, the text on it (labels and
/// buttons; "\n" breaks a line) and whether it is the lit state.
struct ArtEntry
{
    std::string_view name;
    double widthPt;
    double heightPt;
    ArtKind kind;
    std::string_view caption;
    bool isLit;
};

/// Pixels across and down of an image of `points` points.
[[nodiscard]] inline int artPixels(double points)
{
    return static_cast<int>(std::lround(points * kArtScale));
}

inline constexpr double kBigButtonPt = 83.5;
inline constexpr double kRateButtonWidthPt = 56.4;
inline constexpr double kRateButtonHeightPt = 27.6;

/// Every image the panel draws, 39 in all.
inline constexpr std::array<ArtEntry, 39> kArtCatalog{{
    {"backplate14", 840.0, 420.0, ArtKind::Backplate, "", false},
    {"FrameRate", 106.0, 21.0, ArtKind::Label, "FRAME RATE", false},
    {"SessionStart", 129.0, 22.0, ArtKind::Label, "SESSION START", false},
    {"VideoStart", 121.0, 21.0, ArtKind::Label, "VIDEO START", false},
    {"Logo04", 231.0, 74.0, ArtKind::Logo, "KESTRIN", false},
    {"Progress", 134.0, 25.0, ArtKind::Label, "PROGRESS", false},
    {"Keyframes", 134.0, 23.0, ArtKind::Label, "KEYFRAMES", false},
    {"led_on", 11.0, 37.0, ArtKind::Led, "", true},
    {"led_off", 11.0, 37.0, ArtKind::Led, "", false},
    {"SelectVideo_ON", kBigButtonPt, kBigButtonPt, ArtKind::BigButton, "SELECT\nVIDEO", true},
    {"SelectVideo_OFF", kBigButtonPt, kBigButtonPt, ArtKind::BigButton, "SELECT\nVIDEO", false},
    {"StartScan_ON", kBigButtonPt, kBigButtonPt, ArtKind::BigButton, "START\nSCAN", true},
    {"StartScan_OFF", kBigButtonPt, kBigButtonPt, ArtKind::BigButton, "START\nSCAN", false},
    {"Cancel_ON", kBigButtonPt, kBigButtonPt, ArtKind::BigButton, "CANCEL", true},
    {"Cancel_OFF", kBigButtonPt, kBigButtonPt, ArtKind::BigButton, "CANCEL", false},
    {"ExportMIDI_ON", kBigButtonPt, kBigButtonPt, ArtKind::BigButton, "EXPORT\nMIDI", true},
    {"ExportMIDI_OFF", kBigButtonPt, kBigButtonPt, ArtKind::BigButton, "EXPORT\nMIDI", false},
    {"fps23976_ON", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "23.976", true},
    {"fps23976_OFF", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "23.976", false},
    {"fps24_ON", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "24", true},
    {"fps24_OFF", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "24", false},
    {"fps25_ON", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "25", true},
    {"fps25_OFF", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "25", false},
    {"fps2997_ON", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "29.97", true},
    {"fps2997_OFF", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "29.97", false},
    {"fps30_ON", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "30", true},
    {"fps30_OFF", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "30", false},
    {"fps50_ON", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "50", true},
    {"fps50_OFF", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "50", false},
    {"fps5994_ON", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "59.94", true},
    {"fps5994_OFF", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "59.94", false},
    {"fps60_ON", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "60", true},
    {"fps60_OFF", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "60", false},
    {"fpsDF_ON", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "DF", true},
    {"fpsDF_OFF", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "DF", false},
    {"fpsNDF_ON", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "NDF", true},
    {"fpsNDF_OFF", kRateButtonWidthPt, kRateButtonHeightPt, ArtKind::RateButton, "NDF", false},
    {"keyframeLED2_ON", 21.0, 21.0, ArtKind::Lamp, "", true},
    {"keyframeLED2_OFF", 21.0, 21.0, ArtKind::Lamp, "", false},
}};

/// The entry of the image called `name`. Used in a constant expression, a name that is not in
/// the catalog does not compile.
[[nodiscard]] constexpr const ArtEntry& artEntry(std::string_view name)
{
    for (const ArtEntry& entry : kArtCatalog) {
        if (entry.name == name) {
            return entry;
        }
    }
    throw "no such image in the art catalog";
}

/// The application icon: drawn with the rest, square, in pixels.
inline constexpr std::string_view kIconName = "kestrin";
inline constexpr int kIconPixels = 256;

}  // namespace kestrin::ui::detail
