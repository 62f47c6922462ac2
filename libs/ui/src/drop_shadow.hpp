#pragma once

// Soft drop shadows for the panel's art, drawn once into the panel's background.

#include <QColor>
#include <QImage>
#include <QPointF>
#include <QRectF>

class QPainter;

namespace kestrin::ui::detail {

/// Draws the shadow of `shape` (its alpha) as if `shape` were drawn stretched over `rect`: in
/// `color`, blurred by about `blurRadius` points (three box blurs of half the radius, close to a
/// Gaussian of that spread) and moved by `offset` points.
void drawDropShadow(QPainter& painter,
                    const QImage& shape,
                    const QRectF& rect,
                    qreal blurRadius,
                    QPointF offset,
                    const QColor& color);

}  // namespace kestrin::ui::detail
