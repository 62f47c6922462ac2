#include "focus_ring.hpp"

#include <QPainter>
#include <QPainterPath>
#include <QPen>

namespace kestrin::ui::detail {

const QColor FocusRing::kColor = QColor::fromRgbF(0.204F, 0.780F, 0.349F, 0.4F);

FocusRing::FocusRing(QWidget* parent)
    : QWidget(parent)
{
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setAttribute(Qt::WA_NoSystemBackground);
    setFocusPolicy(Qt::NoFocus);
    hide();
}

void FocusRing::surround(const QRect& fieldGeometry)
{
    setGeometry(fieldGeometry.marginsAdded(kMargins));
}

void FocusRing::paintEvent(QPaintEvent* /*event*/)
{
    const QRectF field = QRectF(rect()).marginsRemoved(QMarginsF(kMargins));
    const QRectF ring = field.adjusted(-kOutsetX, -kOutsetY, kOutsetX, kOutsetY);
    QPainterPath path;
    path.addRoundedRect(ring, kCornerRadius, kCornerRadius);

    QPainter painter(this);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setBrush(Qt::NoBrush);

    // The glow: a blurred copy of the line, made of wide faint strokes laid over each other,
    // widest first, so the overlaps add up to kGlowOpacity of the ring colour at the line and
    // fade to nothing kGlowRadius away.
    constexpr int kSteps = 6;
    QColor glow = kColor;
    const qreal total = kGlowOpacity * kColor.alphaF();
    glow.setAlphaF(static_cast<float>(total / kSteps));
    for (int step = kSteps; step >= 1; --step) {
        QPen pen(glow, 2.0 * kGlowRadius * step / kSteps);
        pen.setJoinStyle(Qt::RoundJoin);
        painter.setPen(pen);
        painter.drawPath(path);
    }

    QPen line(kColor, kLineWidth);
    line.setJoinStyle(Qt::RoundJoin);
    line.setCapStyle(Qt::RoundCap);
    painter.setPen(line);
    painter.drawPath(path);
}

}  // namespace kestrin::ui::detail
