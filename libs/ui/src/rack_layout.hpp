#pragma once

// Where everything on the rack panel lies, in points from the panel's top-left corner, y down.

#include "art_catalog.hpp"

#include <kestrin/ui/rack_elements.hpp>
#include <kestrin/ui/timecode_field.hpp>

#include <QPointF>
#include <QRectF>
#include <QSizeF>

#include <array>
#include <optional>
#include <string_view>

namespace kestrin::ui::detail {

/// A button: the stem of its two images and its rectangle (top-left corner and size).
struct RackButtonSpec
{
    RackButtonId id;
    std::string_view nameBase;
    double width;
    double height;
    double x;
    double y;

    [[nodiscard]] constexpr QRectF rect() const { return {x, y, width, height}; }
};

// Shorter names for the sizes of the catalog's button images.
inline constexpr double kBig = kBigButtonPt;
inline constexpr double kRateWidth = kRateButtonWidthPt;
inline constexpr double kRateHeight = kRateButtonHeightPt;

/// The buttons in drawing order, which is also RackButtonId's order.
inline constexpr std::array<RackButtonSpec, 14> kRackButtons{{
    {RackButtonId::selectVideo, "SelectVideo", kBig, kBig, 105, 35},
    {RackButtonId::startScan, "StartScan", kBig, kBig, 105, 123},
    {RackButtonId::acancel, "Cancel", kBig, kBig, 105, 211},
    {RackButtonId::exportMIDI, "ExportMIDI", kBig, kBig, 105, 299},
    {RackButtonId::fps23976, "fps23976", kRateWidth, kRateHeight, 282, 45},
    {RackButtonId::fps24, "fps24", kRateWidth, kRateHeight, 338.4, 45},
    {RackButtonId::fps25, "fps25", kRateWidth, kRateHeight, 394.8, 45},
    {RackButtonId::fps2997, "fps2997", kRateWidth, kRateHeight, 451.2, 45},
    {RackButtonId::fps30, "fps30", kRateWidth, kRateHeight, 282, 81},
    {RackButtonId::fps50, "fps50", kRateWidth, kRateHeight, 338.4, 81},
    {RackButtonId::fps5994, "fps5994", kRateWidth, kRateHeight, 394.8, 81},
    {RackButtonId::fps60, "fps60", kRateWidth, kRateHeight, 451.2, 81},
    {RackButtonId::DF, "fpsDF", kRateWidth, kRateHeight, 546, 45},
    {RackButtonId::NDF, "fpsNDF", kRateWidth, kRateHeight, 546, 81},
}};

/// The rate a rate button sets; absent for the other buttons.
[[nodiscard]] constexpr std::optional<core::FrameRate> buttonRate(RackButtonId id)
{
    switch (id) {
        case RackButtonId::fps23976:
            return core::kFps23976;
        case RackButtonId::fps24:
            return core::kFps24;
        case RackButtonId::fps25:
            return core::kFps25;
        case RackButtonId::fps2997:
            return core::kFps2997;
        case RackButtonId::fps30:
            return core::kFps30;
        case RackButtonId::fps50:
            return core::kFps50;
        case RackButtonId::fps5994:
            return core::kFps5994;
        case RackButtonId::fps60:
            return core::kFps60;
        default:
            return std::nullopt;
    }
}

/// A static label image and its rectangle.
struct RackArtSpec
{
    std::string_view name;
    double x;
    double y;

    [[nodiscard]] constexpr QRectF rect() const
    {
        return {x, y, artEntry(name).widthPt, artEntry(name).heightPt};
    }
};

/// The label art in drawing order.
inline constexpr std::array<RackArtSpec, 6> kRackArt{{
    {"FrameRate", 349, 21},
    {"SessionStart", 393, 164},
    {"VideoStart", 401, 196},
    {"Logo04", 553, 329},
    {"Progress", 284, 309},
    {"Keyframes", 415, 228},
}};

/// The rectangle of `size` centred at `centre`.
[[nodiscard]] constexpr QRectF centredRect(QPointF centre, QSizeF size)
{
    return {
        centre.x() - size.width() / 2, centre.y() - size.height() / 2, size.width(), size.height()};
}

/// The boxes of the two timecode fields; the plate fills the box, the field sits inset in it.
inline constexpr QRectF kSessionStartBox = centredRect({629, 172}, {165, 28});
inline constexpr QRectF kVideoStartBox = centredRect({629, 203}, {165, 28});
inline constexpr double kFieldInset = 8;

/// The file-name display, on a plate like the fields'.
inline constexpr QRectF kVideoLabelBox = centredRect({497, 135}, {425, 20});

/// The scan LED.
inline constexpr QRectF kScanLedRect =
    centredRect({288, 280}, {artEntry("led_on").widthPt, artEntry("led_on").heightPt});

/// The progress bar: its centre and its LEDs.
inline constexpr QPointF kLedBarCentre{503, 280};
inline constexpr int kLedCount = 32;
inline constexpr QSizeF kLedSize{artEntry("led_on").widthPt, artEntry("led_on").heightPt};
inline constexpr double kLedGap = 2;

/// The keyframe lamp, drawn above its neighbours.
inline constexpr std::string_view kLampNameBase = "keyframeLED2";
inline constexpr QRectF kLampRect{
    544, 226, artEntry("keyframeLED2_ON").widthPt, artEntry("keyframeLED2_ON").heightPt};

}  // namespace kestrin::ui::detail
