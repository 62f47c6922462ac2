#pragma once

#include <QColor>
#include <QMargins>
#include <QWidget>

namespace kestrin::ui::detail {

/// The soft ring a focused timecode field shows around itself. A sibling of the field, above it,
/// that takes no clicks: the ring and its glow lie outside the field's rectangle, where the field
/// itself cannot draw and where its neighbours must still get their clicks.
class FocusRing : public QWidget
{
public:
    /// Ring colour: green at alpha 0.4.
    static const QColor kColor;
    static constexpr qreal kCornerRadius = 6.0;
    static constexpr qreal kLineWidth = 1.0;
    /// How far the ring lies outside the field: 5 across, half of that up and down.
    static constexpr qreal kOutsetX = 5.0;
    static constexpr qreal kOutsetY = 2.5;
    /// Reach of the glow beyond the ring line, and its strength where it meets the line.
    static constexpr qreal kGlowRadius = 6.0;
    static constexpr qreal kGlowOpacity = 0.35;
    /// The room the ring widget takes around the field's rectangle.
    static constexpr QMargins kMargins{12, 9, 12, 9};

    explicit FocusRing(QWidget* parent);

    /// Moves the ring around `fieldGeometry` (in the parent's coordinates).
    void surround(const QRect& fieldGeometry);

protected:
    void paintEvent(QPaintEvent* event) override;
};

}  // namespace kestrin::ui::detail
