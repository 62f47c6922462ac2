#pragma once

// The panel's artwork: bitmaps drawn at build time (libs/ui/art/draw_art.cpp) at twice their
// size in points and compiled into this library as Qt resources under ":/art/<name>.png".

#include <QIcon>
#include <QPixmap>
#include <QSizeF>
#include <QString>
#include <QStringList>
#include <QStringView>

namespace kestrin::ui {

/// Device pixels per point of every art image.
inline constexpr qreal kArtDevicePixelRatio = 2.0;

/// The names of the 39 art images: "backplate14", the label art, "led_on"/"led_off", and the
/// "_ON" and "_OFF" images of every button and of the "keyframeLED2" lamp.
[[nodiscard]] QStringList artNames();

/// The size of the art image `name` in points (device-independent pixels), as the panel draws
/// it: 840 × 420 for "backplate14", 56.4 × 27.6 for a frame-rate button. Empty for an unknown
/// name.
[[nodiscard]] QSizeF artSize(QStringView name);

/// The art image `name` as a pixmap with device pixel ratio 2: its pixels are twice its size in
/// points, rounded (a frame-rate button is 113 × 55 pixels). A null pixmap for an unknown name.
/// Each call decodes the PNG again: load an image once and keep the pixmap (copies share their
/// pixels). Needs a QGuiApplication; interface thread only.
[[nodiscard]] QPixmap artPixmap(QStringView name);

/// The application's icon (the 256 × 256 image installed as kestrin.png).
[[nodiscard]] QIcon applicationIcon();

}  // namespace kestrin::ui
