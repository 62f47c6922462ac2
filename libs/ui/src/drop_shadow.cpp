#include "drop_shadow.hpp"

#include <QPainter>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <vector>

namespace kestrin::ui::detail {
namespace {

constexpr int kBoxPasses = 3;

// One box blur of half-width `radius` along a line of `count` values `stride` apart, in place.
void boxBlurLine(std::uint8_t* line,
                 int count,
                 std::ptrdiff_t stride,
                 int radius,
                 std::vector<std::uint8_t>& scratch)
{
    const auto size = static_cast<std::size_t>(count);
    scratch.resize(size);
    for (std::size_t i = 0; i < size; ++i) {
        scratch[i] = line[static_cast<std::ptrdiff_t>(i) * stride];
    }
    const auto at = [&](int index) -> int {
        return index < 0 || index >= count ? 0 : scratch[static_cast<std::size_t>(index)];
    };
    const int width = 2 * radius + 1;
    int sum = 0;
    for (int i = -radius; i <= radius; ++i) {
        sum += at(i);
    }
    for (int i = 0; i < count; ++i) {
        line[static_cast<std::ptrdiff_t>(i) * stride] = static_cast<std::uint8_t>(sum / width);
        sum += at(i + radius + 1) - at(i - radius);
    }
}

}  // namespace

void drawDropShadow(QPainter& painter,
                    const QImage& shape,
                    const QRectF& rect,
                    qreal blurRadius,
                    QPointF offset,
                    const QColor& color)
{
    if (shape.isNull() || rect.isEmpty()) {
        return;
    }
    // Blur in the shape's own pixels; the spread is scaled by how much the shape is stretched.
    const qreal pixelsPerPoint = shape.width() / rect.width();
    const int radius = std::max(1, static_cast<int>(std::lround(blurRadius * pixelsPerPoint / 2)));
    const int padding = kBoxPasses * radius;
    const int width = shape.width() + 2 * padding;
    const int height = shape.height() + 2 * padding;

    const QImage source = shape.convertToFormat(QImage::Format_ARGB32);
    std::vector<std::uint8_t> alpha(static_cast<std::size_t>(width)
                                    * static_cast<std::size_t>(height));
    for (int y = 0; y < source.height(); ++y) {
        const auto* row = reinterpret_cast<const QRgb*>(source.constScanLine(y));
        for (int x = 0; x < source.width(); ++x) {
            alpha[static_cast<std::size_t>(y + padding) * static_cast<std::size_t>(width)
                  + static_cast<std::size_t>(x + padding)] =
                static_cast<std::uint8_t>(qAlpha(row[x]));
        }
    }
    std::vector<std::uint8_t> scratch;
    for (int pass = 0; pass < kBoxPasses; ++pass) {
        for (int y = 0; y < height; ++y) {
            boxBlurLine(&alpha[static_cast<std::size_t>(y) * static_cast<std::size_t>(width)],
                        width,
                        1,
                        radius,
                        scratch);
        }
        for (int x = 0; x < width; ++x) {
            boxBlurLine(&alpha[static_cast<std::size_t>(x)], height, width, radius, scratch);
        }
    }

    QImage shadow(width, height, QImage::Format_ARGB32_Premultiplied);
    const QRgb opaque = color.rgba();
    for (int y = 0; y < height; ++y) {
        auto* row = reinterpret_cast<QRgb*>(shadow.scanLine(y));
        for (int x = 0; x < width; ++x) {
            const int a = alpha[static_cast<std::size_t>(y) * static_cast<std::size_t>(width)
                                + static_cast<std::size_t>(x)]
                          * qAlpha(opaque) / 255;
            row[x] = qPremultiply(qRgba(qRed(opaque), qGreen(opaque), qBlue(opaque), a));
        }
    }
    const qreal paddingPt = padding / pixelsPerPoint;
    const QRectF target =
        rect.adjusted(-paddingPt, -paddingPt, paddingPt, paddingPt).translated(offset);
    painter.drawImage(target, shadow);
}

}  // namespace kestrin::ui::detail
