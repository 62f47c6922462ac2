// Draws the rack panel's artwork: every image of the catalog as a PNG at twice its size in
// points, the application icon, and a Qt resource file listing them.
//
//   kestrin_draw_art <output directory> <name>...
//
// The names are the images the build expects; the program refuses to run when they differ from
// its catalog. Files whose bytes would not change are left alone, so their times stay as they were
// and nothing downstream rebuilds. Everything is drawn from fixed numbers and the DejaVu fonts, so
// the same fonts give the same bytes.

#include "art_catalog.hpp"

#include <QBuffer>
#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QFont>
#include <QFontDatabase>
#include <QFontMetricsF>
#include <QGuiApplication>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QRadialGradient>
#include <QString>
#include <QStringList>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <set>
#include <string>
#include <vector>

namespace {

using kestrin::ui::detail::ArtEntry;
using kestrin::ui::detail::ArtKind;
using kestrin::ui::detail::artPixels;
using kestrin::ui::detail::kArtCatalog;
using kestrin::ui::detail::kArtScale;

// ---- Look -----------------------------------------------------------------------------------

const QColor kMetal(0x2c, 0x2e, 0x32);
const QColor kEarMetal(0x25, 0x27, 0x2a);
const QColor kGlass(0x0b, 0x0d, 0x0e);
const QColor kEngraving(0xdc, 0xde, 0xd8);
const QColor kAmber(0xff, 0xa8, 0x30);
const QColor kAmberHot(0xff, 0xec, 0xb8);
const QColor kAmberDeep(0xc8, 0x62, 0x08);
const QColor kGreen(0x3c, 0xf0, 0x6a);
const QColor kGreenHot(0xd8, 0xff, 0xe0);
const QColor kGreenDeep(0x0e, 0x9c, 0x38);
const QColor kRust(0xc8, 0x64, 0x2a);

// Fonts, from the DejaVu files when they load, else whatever the system offers by that name.
// The condensed face registers under the same family, told apart by its stretch.
QString loadFamily()
{
    const QString fallback = QStringLiteral("DejaVu Sans");
    QString family;
    for (const char* file : {"DejaVuSans-Bold.ttf", "DejaVuSansCondensed-Bold.ttf"}) {
        const QString path =
            QStringLiteral("/usr/share/fonts/truetype/dejavu/") + QLatin1String(file);
        const int id = QFontDatabase::addApplicationFont(path);
        const QStringList families =
            id >= 0 ? QFontDatabase::applicationFontFamilies(id) : QStringList();
        if (families.isEmpty()) {
            std::fprintf(stderr,
                         "draw_art: cannot load %s; using the system's \"%s\" (the images may "
                         "differ between machines)\n",
                         qPrintable(path),
                         qPrintable(fallback));
        } else if (family.isEmpty()) {
            family = families.front();
        }
    }
    return family.isEmpty() ? fallback : family;
}

enum class Width { Normal, Condensed };

QFont boldFont(const QString& family,
               qreal pointSize,
               qreal letterSpacing,
               Width width = Width::Normal)
{
    QFont font(family);
    font.setBold(true);
    font.setStretch(width == Width::Condensed ? QFont::SemiCondensed : QFont::Unstretched);
    font.setPointSizeF(pointSize);
    font.setHintingPreference(QFont::PreferNoHinting);
    font.setStyleStrategy(
        static_cast<QFont::StyleStrategy>(QFont::PreferAntialias | QFont::NoFontMerging));
    if (letterSpacing != 0.0) {
        font.setLetterSpacing(QFont::AbsoluteSpacing, letterSpacing);
    }
    return font;
}

// A painter on a transparent image of `entry`'s pixel size whose units are points. Text sizes are
// set in points of this space: the image's dots per metre are set so that one font point is one
// unit.
class Canvas
{
public:
    Canvas(int widthPx, int heightPx, double widthPt, double heightPt)
        : image_(widthPx, heightPx, QImage::Format_ARGB32_Premultiplied)
    {
        image_.fill(Qt::transparent);
        // 72 dots per inch at 1× makes a font point one unit of the scaled painter.
        const int dotsPerMetre = static_cast<int>(std::lround(72.0 / 0.0254));
        image_.setDotsPerMeterX(dotsPerMetre);
        image_.setDotsPerMeterY(dotsPerMetre);
        scaleX_ = widthPx / widthPt;
        scaleY_ = heightPx / heightPt;
    }

    QImage& image() { return image_; }
    [[nodiscard]] double scaleX() const { return scaleX_; }
    [[nodiscard]] double scaleY() const { return scaleY_; }

    void begin(QPainter& painter)
    {
        painter.begin(&image_);
        painter.setRenderHints(QPainter::Antialiasing | QPainter::TextAntialiasing
                               | QPainter::SmoothPixmapTransform);
        painter.scale(scaleX_, scaleY_);
    }

private:
    QImage image_;
    double scaleX_ = kArtScale;
    double scaleY_ = kArtScale;
};

// ---- Pseudo-random numbers, the same everywhere -----------------------------------------------

class Noise
{
public:
    explicit Noise(std::uint64_t seed)
        : state_(seed)
    {}

    // Uniform in [-1, 1).
    double next()
    {
        // splitmix64
        state_ += 0x9E3779B97F4A7C15ULL;
        std::uint64_t z = state_;
        z = (z ^ (z >> 30U)) * 0xBF58476D1CE4E5B9ULL;
        z = (z ^ (z >> 27U)) * 0x94D049BB133111EBULL;
        z ^= z >> 31U;
        return static_cast<double>(z >> 11U) / static_cast<double>(1ULL << 52U) - 1.0;
    }

private:
    std::uint64_t state_;
};

int clampByte(double value)
{
    return std::clamp(static_cast<int>(std::lround(value)), 0, 255);
}

// Fills `area` (pixels) with brushed metal around `base`: fine horizontal streaks of random
// length, rows a little lighter or darker, and light falling from above.
void brushMetal(QImage& image, const QRect& area, const QColor& base, std::uint64_t seed)
{
    Noise noise(seed);
    const int width = area.width();
    const int height = area.height();
    std::vector<double> white(static_cast<std::size_t>(width) + 1);
    std::vector<double> row(static_cast<std::size_t>(width));
    constexpr int kStreak = 48;  // pixels a streak runs along
    for (int y = 0; y < height; ++y) {
        // A running sum over white noise: a box blur along the row gives long thin streaks.
        white[0] = 0.0;
        for (int x = 0; x < width; ++x) {
            white[static_cast<std::size_t>(x) + 1] =
                white[static_cast<std::size_t>(x)] + noise.next();
        }
        for (int x = 0; x < width; ++x) {
            const int from = std::max(0, x - kStreak / 2);
            const int to = std::min(width, x + kStreak / 2);
            row[static_cast<std::size_t>(x)] =
                (white[static_cast<std::size_t>(to)] - white[static_cast<std::size_t>(from)])
                / std::sqrt(static_cast<double>(to - from));
        }
        const double rowShade = 3.0 * noise.next();
        const double light = 10.0 * (0.5 - static_cast<double>(y) / height);
        auto* line = reinterpret_cast<QRgb*>(image.scanLine(area.top() + y));
        for (int x = 0; x < width; ++x) {
            const double grain = 5.0 * row[static_cast<std::size_t>(x)] + 2.0 * noise.next();
            const double shift = grain + rowShade + light;
            line[area.left() + x] = qRgba(clampByte(base.red() + shift),
                                          clampByte(base.green() + shift),
                                          clampByte(base.blue() + shift * 1.08),
                                          255);
        }
    }
}

// ---- Shared drawing helpers (in points) -------------------------------------------------------

QColor withAlpha(QColor colour, double alpha)
{
    colour.setAlphaF(static_cast<float>(alpha));
    return colour;
}

// Light text cut into the plate: a dark edge above where the cut shades it, a faint bright edge
// below where it catches the light.
void engrave(
    QPainter& painter, const QRectF& box, int flags, const QString& text, const QColor& ink)
{
    painter.setPen(withAlpha(Qt::black, 0.75));
    painter.drawText(box.translated(0.0, -0.6), flags, text);
    painter.setPen(withAlpha(Qt::white, 0.18));
    painter.drawText(box.translated(0.0, 0.6), flags, text);
    painter.setPen(ink);
    painter.drawText(box, flags, text);
}

// A Phillips screw head of diameter `size` at `centre`.
void drawScrew(QPainter& painter, const QPointF& centre, double size)
{
    const double radius = size / 2.0;
    QRadialGradient head(centre - QPointF(radius * 0.35, radius * 0.35), size);
    head.setColorAt(0.0, QColor(0xe6, 0xe8, 0xea));
    head.setColorAt(0.45, QColor(0x9a, 0x9d, 0xa2));
    head.setColorAt(1.0, QColor(0x3c, 0x3e, 0x42));
    painter.setPen(QPen(withAlpha(Qt::black, 0.7), 0.6));
    painter.setBrush(head);
    painter.drawEllipse(centre, radius, radius);
    const double arm = radius * 0.55;
    const double thick = radius * 0.22;
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0x26, 0x27, 0x2a));
    painter.drawRoundedRect(
        QRectF(centre.x() - arm, centre.y() - thick / 2, 2 * arm, thick), 0.4, 0.4);
    painter.drawRoundedRect(
        QRectF(centre.x() - thick / 2, centre.y() - arm, thick, 2 * arm), 0.4, 0.4);
}

// An oblong rack-ear slot with a screw in it.
void drawEarSlot(QPainter& painter, const QPointF& centre)
{
    const QRectF slot(centre.x() - 11.0, centre.y() - 6.0, 22.0, 12.0);
    painter.setPen(Qt::NoPen);
    painter.setBrush(withAlpha(Qt::white, 0.10));
    painter.drawRoundedRect(slot.translated(0.0, 0.8), 6.0, 6.0);
    painter.setBrush(QColor(0x05, 0x05, 0x06));
    painter.drawRoundedRect(slot, 6.0, 6.0);
    drawScrew(painter, centre + QPointF(1.5, 0.0), 10.5);
}

// A rounded window cut into the plate: dark, shaded at its top edge, lit at its bottom edge.
void drawRecess(QPainter& painter, const QRectF& box, double radius, const QColor& fill)
{
    painter.setPen(Qt::NoPen);
    painter.setBrush(withAlpha(Qt::white, 0.12));
    painter.drawRoundedRect(box.adjusted(-0.5, -0.5, 0.5, 1.2), radius + 0.5, radius + 0.5);
    painter.setBrush(withAlpha(Qt::black, 0.8));
    painter.drawRoundedRect(box.adjusted(-0.8, -1.2, 0.8, 0.0), radius + 0.5, radius + 0.5);
    QLinearGradient shade(box.topLeft(), box.bottomLeft());
    shade.setColorAt(0.0, fill.darker(160));
    shade.setColorAt(0.08, fill);
    shade.setColorAt(1.0, fill.lighter(115));
    painter.setBrush(shade);
    painter.drawRoundedRect(box, radius, radius);
}

// ---- The images ------------------------------------------------------------------------------

void drawBackplate(Canvas& canvas)
{
    constexpr double kWidth = 840.0;
    constexpr double kHeight = 420.0;
    constexpr double kEar = 44.0;  // width of each rack ear
    QImage& image = canvas.image();
    const int earPx = static_cast<int>(std::lround(kEar * canvas.scaleX()));
    brushMetal(image, QRect(0, 0, earPx, image.height()), kEarMetal, 11);
    brushMetal(image, QRect(image.width() - earPx, 0, earPx, image.height()), kEarMetal, 12);
    brushMetal(image, QRect(earPx, 0, image.width() - 2 * earPx, image.height()), kMetal, 13);

    QPainter painter;
    canvas.begin(painter);

    // Where the ears fold back from the face: a shadowed crease and a lit edge.
    for (const double x : {kEar, kWidth - kEar}) {
        painter.fillRect(QRectF(x - 1.0, 0.0, 1.0, kHeight), withAlpha(Qt::black, 0.55));
        painter.fillRect(QRectF(x, 0.0, 0.7, kHeight), withAlpha(Qt::white, 0.10));
    }
    // Edges of the plate: bevelled top, shaded bottom, dark outline.
    painter.fillRect(QRectF(0.0, 0.0, kWidth, 1.5), withAlpha(Qt::white, 0.16));
    painter.fillRect(QRectF(0.0, kHeight - 2.0, kWidth, 2.0), withAlpha(Qt::black, 0.45));
    painter.setPen(QPen(withAlpha(Qt::black, 0.8), 1.0));
    painter.setBrush(Qt::NoBrush);
    painter.drawRect(QRectF(0.5, 0.5, kWidth - 1.0, kHeight - 1.0));

    for (const double x : {kEar / 2.0, kWidth - kEar / 2.0}) {
        drawEarSlot(painter, QPointF(x, 44.0));
        drawEarSlot(painter, QPointF(x, kHeight - 44.0));
    }

    // An engraved line between the transport buttons and the rest of the face.
    painter.fillRect(QRectF(236.0, 26.0, 1.0, 368.0), withAlpha(Qt::black, 0.6));
    painter.fillRect(QRectF(237.0, 26.0, 0.8, 368.0), withAlpha(Qt::white, 0.09));

    // The display window behind the file name, the timecodes, the lamp and the LED bar.
    drawRecess(painter, QRectF(270.0, 116.0, 454.0, 188.0), 7.0, kGlass);
    // Hairlines inside the window, the way a printed overlay would divide it.
    painter.fillRect(QRectF(284.0, 153.0, 426.0, 0.6), withAlpha(kGreen, 0.10));
    painter.fillRect(QRectF(284.0, 254.0, 426.0, 0.6), withAlpha(kGreen, 0.10));

    // A small bracket around the DF / NDF pair.
    painter.setPen(QPen(withAlpha(Qt::black, 0.55), 1.0));
    painter.setBrush(Qt::NoBrush);
    painter.drawRoundedRect(QRectF(538.5, 38.5, 72.0, 77.0), 5.0, 5.0);
    painter.setPen(QPen(withAlpha(Qt::white, 0.08), 0.8));
    painter.drawRoundedRect(QRectF(539.3, 39.5, 72.0, 77.0), 5.0, 5.0);

    // Vent slots at the top right.
    for (int slot = 0; slot < 6; ++slot) {
        const QRectF box(652.0, 34.0 + slot * 12.0, 124.0, 5.0);
        painter.setPen(Qt::NoPen);
        painter.setBrush(withAlpha(Qt::white, 0.10));
        painter.drawRoundedRect(box.translated(0.0, 0.8), 2.5, 2.5);
        painter.setBrush(QColor(0x06, 0x06, 0x07));
        painter.drawRoundedRect(box, 2.5, 2.5);
    }

    // Corner screws of the face.
    for (const QPointF& at :
         {QPointF(62.0, 18.0), QPointF(778.0, 18.0), QPointF(62.0, 402.0), QPointF(778.0, 402.0)}) {
        drawScrew(painter, at, 9.0);
    }
    painter.end();
}

void drawLabel(Canvas& canvas, const ArtEntry& entry, const QString& family)
{
    QPainter painter;
    canvas.begin(painter);
    const QString text =
        QString::fromUtf8(entry.caption.data(), static_cast<qsizetype>(entry.caption.size()));
    // Capitals about 40 % of the height, smaller when the width asks for it.
    double size = entry.heightPt * 0.55;
    QFont font = boldFont(family, size, 1.2, Width::Condensed);
    while (size > 4.0
           && QFontMetricsF(font, &canvas.image()).horizontalAdvance(text) > entry.widthPt - 4.0) {
        size -= 0.25;
        font = boldFont(family, size, 1.2, Width::Condensed);
    }
    painter.setFont(font);
    // Each label lines up with what it names: the two timecode labels and the lamp's against
    // their right end, Progress with the start of the LED row, Frame Rate over its buttons.
    int alignment = Qt::AlignHCenter;
    double rightInset = 2.0;
    if (entry.name == "SessionStart" || entry.name == "VideoStart") {
        alignment = Qt::AlignRight;
    } else if (entry.name == "Keyframes") {
        alignment = Qt::AlignRight;
        rightInset = 11.0;  // the lamp covers the last points
    } else if (entry.name == "Progress") {
        alignment = Qt::AlignLeft;
    }
    const QRectF box(2.0, 0.0, entry.widthPt - 2.0 - rightInset, entry.heightPt);
    engrave(painter, box, alignment | Qt::AlignVCenter, text, kEngraving);
    painter.end();
}

void drawLogo(Canvas& canvas, const ArtEntry& entry, const QString& family)
{
    QPainter painter;
    canvas.begin(painter);
    const double height = entry.heightPt;

    // Three swept strokes in the bird's rust colour, like a wing in a dive.
    painter.setPen(Qt::NoPen);
    for (int stroke = 0; stroke < 3; ++stroke) {
        const double top = 12.0 + stroke * 11.0;
        const double left = 6.0 + stroke * 5.0;
        QPainterPath wing;
        wing.moveTo(left + 14.0, top);
        wing.lineTo(left + 34.0 - stroke * 4.0, top);
        wing.lineTo(left + 20.0 - stroke * 4.0, top + 7.0);
        wing.lineTo(left, top + 7.0);
        wing.closeSubpath();
        QLinearGradient rust(QPointF(left, top), QPointF(left + 34.0, top + 7.0));
        rust.setColorAt(0.0, kRust.lighter(125));
        rust.setColorAt(1.0, kRust.darker(130));
        painter.setBrush(withAlpha(Qt::black, 0.6));
        painter.drawPath(wing.translated(0.0, -0.6));
        painter.setBrush(rust);
        painter.drawPath(wing);
    }

    // The name in polished metal.
    const QString name = QStringLiteral("KESTRIN");
    double size = 34.0;
    QFont font = boldFont(family, size, 3.0);
    const double textLeft = 52.0;
    while (QFontMetricsF(font, &canvas.image()).horizontalAdvance(name)
           > entry.widthPt - textLeft - 4.0) {
        size -= 0.25;
        font = boldFont(family, size, 3.0);
    }
    const QFontMetricsF metrics(font, &canvas.image());
    const double baseline = 11.0 + metrics.capHeight();
    const QPointF origin(textLeft, baseline);
    painter.setFont(font);
    painter.setPen(withAlpha(Qt::black, 0.75));
    painter.drawText(origin + QPointF(0.0, -0.7), name);
    painter.setPen(withAlpha(Qt::white, 0.2));
    painter.drawText(origin + QPointF(0.0, 0.7), name);
    // Polished metal: light above, a bright edge across the middle, darker below.
    QLinearGradient polish(QPointF(0.0, baseline - metrics.capHeight()), QPointF(0.0, baseline));
    polish.setColorAt(0.0, QColor(0xf6, 0xf6, 0xf2));
    polish.setColorAt(0.55, QColor(0xc4, 0xc6, 0xc2));
    polish.setColorAt(0.56, QColor(0xa6, 0xa8, 0xa4));
    polish.setColorAt(1.0, QColor(0xd8, 0xda, 0xd6));
    painter.setPen(QPen(QBrush(polish), 0.0));
    painter.drawText(origin, name);

    // A rule and the unit's description under the name.
    const double ruleY = baseline + 8.0;
    painter.fillRect(QRectF(textLeft, ruleY, entry.widthPt - textLeft - 6.0, 0.8),
                     withAlpha(kRust, 0.9));
    painter.setFont(boldFont(family, 8.5, 1.6, Width::Condensed));
    engrave(painter,
            QRectF(textLeft, ruleY + 2.0, entry.widthPt - textLeft - 6.0, height - ruleY - 4.0),
            Qt::AlignLeft | Qt::AlignVCenter,
            QStringLiteral("PICTURE CUT MARKER UNIT"),
            withAlpha(kEngraving, 0.8));
    painter.end();
}

void drawLed(Canvas& canvas, const ArtEntry& entry)
{
    QPainter painter;
    canvas.begin(painter);
    const QRectF body(0.75, 0.75, entry.widthPt - 1.5, entry.heightPt - 1.5);
    const double radius = 2.5;
    // The bezel the segment sits in.
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0x06, 0x07, 0x07));
    painter.drawRoundedRect(body.adjusted(-0.75, -0.75, 0.75, 0.75), radius + 0.75, radius + 0.75);

    QLinearGradient across(body.topLeft(), body.topRight());
    if (entry.isLit) {
        across.setColorAt(0.0, kGreenDeep);
        across.setColorAt(0.5, kGreen);
        across.setColorAt(1.0, kGreenDeep);
    } else {
        across.setColorAt(0.0, QColor(0x0a, 0x1c, 0x10));
        across.setColorAt(0.5, QColor(0x14, 0x33, 0x1d));
        across.setColorAt(1.0, QColor(0x0a, 0x1c, 0x10));
    }
    painter.setBrush(across);
    painter.drawRoundedRect(body, radius, radius);

    if (entry.isLit) {
        // The hot core of the lit segment.
        QRadialGradient core(body.center(), body.height() * 0.55);
        core.setColorAt(0.0, withAlpha(kGreenHot, 0.85));
        core.setColorAt(0.45, withAlpha(kGreen, 0.35));
        core.setColorAt(1.0, withAlpha(kGreen, 0.0));
        painter.setBrush(core);
        painter.drawRoundedRect(body, radius, radius);
    }
    // Light on the glass: a narrow reflection down the left.
    QLinearGradient sheen(body.topLeft(), body.bottomLeft());
    sheen.setColorAt(0.0, withAlpha(Qt::white, entry.isLit ? 0.45 : 0.22));
    sheen.setColorAt(1.0, withAlpha(Qt::white, 0.0));
    painter.setBrush(sheen);
    painter.drawRoundedRect(
        QRectF(body.left() + 1.4, body.top() + 1.2, 1.6, body.height() * 0.6), 0.8, 0.8);
    painter.end();
}

// A backlit button: a dark bezel and a cap that is dark when off and glows amber when on, with
// the caption printed on it.
void drawButton(Canvas& canvas, const ArtEntry& entry, const QString& family)
{
    const bool isBig = entry.kind == ArtKind::BigButton;
    const double width = entry.widthPt;
    const double height = entry.heightPt;
    const double bezelRadius = isBig ? 9.0 : 5.0;
    const double inset = isBig ? 6.0 : 3.0;
    const double capRadius = isBig ? 6.0 : 3.5;

    QPainter painter;
    canvas.begin(painter);
    const QRectF outer(0.5, 0.5, width - 1.0, height - 1.0);
    QLinearGradient bezel(outer.topLeft(), outer.bottomLeft());
    bezel.setColorAt(0.0, QColor(0x4a, 0x4d, 0x52));
    bezel.setColorAt(0.5, QColor(0x1d, 0x1e, 0x21));
    bezel.setColorAt(1.0, QColor(0x0e, 0x0f, 0x10));
    painter.setPen(QPen(QColor(0x05, 0x05, 0x06), 1.0));
    painter.setBrush(bezel);
    painter.drawRoundedRect(outer, bezelRadius, bezelRadius);

    const QRectF cap = outer.adjusted(inset, inset, -inset, -inset);
    if (entry.isLit) {
        // Light spilling from under the cap onto the bezel.
        QRadialGradient spill(cap.center(), std::max(width, height) * 0.62);
        spill.setColorAt(0.0, withAlpha(kAmber, 0.55));
        spill.setColorAt(0.7, withAlpha(kAmber, 0.25));
        spill.setColorAt(1.0, withAlpha(kAmber, 0.0));
        painter.setPen(Qt::NoPen);
        painter.setBrush(spill);
        painter.drawRoundedRect(
            outer.adjusted(1.0, 1.0, -1.0, -1.0), bezelRadius - 1.0, bezelRadius - 1.0);

        QRadialGradient glow(cap.center() - QPointF(0.0, cap.height() * 0.1),
                             std::max(cap.width(), cap.height()) * 0.75);
        glow.setColorAt(0.0, kAmberHot);
        glow.setColorAt(0.45, kAmber);
        glow.setColorAt(1.0, kAmberDeep);
        painter.setPen(QPen(withAlpha(kAmberHot, 0.7), 0.8));
        painter.setBrush(glow);
    } else {
        QLinearGradient dark(cap.topLeft(), cap.bottomLeft());
        dark.setColorAt(0.0, QColor(0x44, 0x46, 0x4b));
        dark.setColorAt(1.0, QColor(0x26, 0x27, 0x2b));
        painter.setPen(QPen(withAlpha(Qt::black, 0.9), 0.8));
        painter.setBrush(dark);
    }
    painter.drawRoundedRect(cap, capRadius, capRadius);

    // A soft reflection on the upper half of the cap.
    QLinearGradient gloss(cap.topLeft(), QPointF(cap.left(), cap.center().y()));
    gloss.setColorAt(0.0, withAlpha(Qt::white, entry.isLit ? 0.35 : 0.16));
    gloss.setColorAt(1.0, withAlpha(Qt::white, 0.0));
    painter.setPen(Qt::NoPen);
    painter.setBrush(gloss);
    painter.drawRoundedRect(
        cap.adjusted(1.0, 1.0, -1.0, -cap.height() * 0.45), capRadius - 1.0, capRadius - 1.0);

    const QString caption =
        QString::fromUtf8(entry.caption.data(), static_cast<qsizetype>(entry.caption.size()));
    const QStringList lines = caption.split(QLatin1Char('\n'));
    double size = isBig ? 11.5 : 10.0;
    const double spacing = isBig ? 1.0 : 0.4;
    QFont font = boldFont(family, size, spacing);
    const double room = cap.width() - (isBig ? 10.0 : 5.0);
    const auto widest = [&](const QFont& candidate) {
        double widestLine = 0.0;
        for (const QString& line : lines) {
            widestLine = std::max(
                widestLine, QFontMetricsF(candidate, &canvas.image()).horizontalAdvance(line));
        }
        return widestLine;
    };
    while (size > 4.0 && widest(font) > room) {
        size -= 0.25;
        font = boldFont(family, size, spacing);
    }
    painter.setFont(font);
    const QRectF textBox = cap.adjusted(2.0, 1.0, -2.0, -1.0);
    const int flags = Qt::AlignCenter;
    if (entry.isLit) {
        painter.setPen(withAlpha(kAmberHot, 0.6));
        painter.drawText(textBox.translated(0.0, 0.6), flags, caption);
        painter.setPen(QColor(0x3a, 0x1c, 0x00));
        painter.drawText(textBox, flags, caption);
    } else {
        painter.setPen(withAlpha(Qt::black, 0.8));
        painter.drawText(textBox.translated(0.0, -0.6), flags, caption);
        painter.setPen(QColor(0xb4, 0xb7, 0xbc));
        painter.drawText(textBox, flags, caption);
    }
    painter.end();
}

void drawLamp(Canvas& canvas, const ArtEntry& entry)
{
    QPainter painter;
    canvas.begin(painter);
    const QPointF centre(entry.widthPt / 2.0, entry.heightPt / 2.0);
    const double outer = std::min(entry.widthPt, entry.heightPt) / 2.0 - 0.3;
    const double lens = outer - 3.0;

    QLinearGradient ring(centre - QPointF(0.0, outer), centre + QPointF(0.0, outer));
    ring.setColorAt(0.0, QColor(0xd6, 0xd8, 0xdb));
    ring.setColorAt(0.5, QColor(0x6c, 0x6f, 0x74));
    ring.setColorAt(1.0, QColor(0x2a, 0x2b, 0x2e));
    painter.setPen(QPen(QColor(0x05, 0x05, 0x06), 0.6));
    painter.setBrush(ring);
    painter.drawEllipse(centre, outer, outer);
    painter.setPen(Qt::NoPen);
    painter.setBrush(QColor(0x08, 0x08, 0x09));
    painter.drawEllipse(centre, lens + 0.8, lens + 0.8);

    QRadialGradient glass(centre - QPointF(lens * 0.2, lens * 0.25), lens * 1.2);
    if (entry.isLit) {
        glass.setColorAt(0.0, kAmberHot);
        glass.setColorAt(0.35, kAmber);
        glass.setColorAt(1.0, kAmberDeep);
    } else {
        glass.setColorAt(0.0, QColor(0x5a, 0x33, 0x12));
        glass.setColorAt(1.0, QColor(0x22, 0x12, 0x06));
    }
    painter.setBrush(glass);
    painter.drawEllipse(centre, lens, lens);
    // The glint on the lens.
    painter.setBrush(withAlpha(Qt::white, entry.isLit ? 0.7 : 0.35));
    painter.drawEllipse(centre - QPointF(lens * 0.38, lens * 0.42), lens * 0.28, lens * 0.2);
    painter.end();
}

// The icon: a corner of the unit's face, a display window with the green LED row and a lit
// amber button.
void drawIcon(Canvas& canvas, const QString& family)
{
    QImage& image = canvas.image();
    QImage metal(image.size(), QImage::Format_ARGB32_Premultiplied);
    brushMetal(metal, metal.rect(), kMetal, 21);

    QPainter painter;
    canvas.begin(painter);
    const double size = 128.0;  // points; the canvas is at twice that
    const QRectF plate(6.0, 6.0, size - 12.0, size - 12.0);
    QPainterPath outline;
    outline.addRoundedRect(plate, 22.0, 22.0);
    painter.setPen(Qt::NoPen);
    painter.setBrush(withAlpha(Qt::black, 0.45));
    painter.drawPath(outline.translated(0.0, 2.0));
    painter.save();
    painter.setClipPath(outline);
    painter.drawImage(QRectF(0.0, 0.0, size, size), metal);
    painter.fillRect(QRectF(plate.left(), plate.top(), plate.width(), 1.6),
                     withAlpha(Qt::white, 0.22));
    painter.restore();
    painter.setPen(QPen(withAlpha(Qt::black, 0.85), 1.2));
    painter.setBrush(Qt::NoBrush);
    painter.drawPath(outline);

    drawScrew(painter, QPointF(22.0, 22.0), 8.0);
    drawScrew(painter, QPointF(106.0, 22.0), 8.0);

    const QRectF window(20.0, 36.0, 88.0, 36.0);
    drawRecess(painter, window, 5.0, kGlass);
    constexpr int kLeds = 8;
    constexpr int kLit = 5;
    const double ledWidth = 6.0;
    const double gap = (window.width() - 12.0 - kLeds * ledWidth) / (kLeds - 1);
    for (int led = 0; led < kLeds; ++led) {
        const QRectF bar(
            window.left() + 6.0 + led * (ledWidth + gap), window.top() + 7.0, ledWidth, 22.0);
        painter.setPen(Qt::NoPen);
        if (led < kLit) {
            QLinearGradient across(bar.topLeft(), bar.topRight());
            across.setColorAt(0.0, kGreenDeep);
            across.setColorAt(0.5, kGreenHot);
            across.setColorAt(1.0, kGreenDeep);
            painter.setBrush(withAlpha(kGreen, 0.25));
            painter.drawRoundedRect(bar.adjusted(-1.5, -1.5, 1.5, 1.5), 3.0, 3.0);
            painter.setBrush(across);
        } else {
            painter.setBrush(QColor(0x14, 0x33, 0x1d));
        }
        painter.drawRoundedRect(bar, 1.8, 1.8);
    }

    const QRectF outer(34.0, 80.0, 60.0, 32.0);
    QRadialGradient spill(outer.center(), 40.0);
    spill.setColorAt(0.0, withAlpha(kAmber, 0.45));
    spill.setColorAt(1.0, withAlpha(kAmber, 0.0));
    painter.setBrush(spill);
    painter.drawRoundedRect(outer.adjusted(-4.0, -4.0, 4.0, 4.0), 9.0, 9.0);
    painter.setPen(QPen(QColor(0x05, 0x05, 0x06), 1.0));
    painter.setBrush(QColor(0x1d, 0x1e, 0x21));
    painter.drawRoundedRect(outer, 6.0, 6.0);
    const QRectF cap = outer.adjusted(3.5, 3.5, -3.5, -3.5);
    QRadialGradient glow(cap.center(), cap.width() * 0.7);
    glow.setColorAt(0.0, kAmberHot);
    glow.setColorAt(0.5, kAmber);
    glow.setColorAt(1.0, kAmberDeep);
    painter.setPen(Qt::NoPen);
    painter.setBrush(glow);
    painter.drawRoundedRect(cap, 4.0, 4.0);
    painter.setFont(boldFont(family, 17.0, 1.0));
    painter.setPen(QColor(0x3a, 0x1c, 0x00));
    painter.drawText(cap, Qt::AlignCenter, QStringLiteral("K"));
    painter.end();
}

QImage drawEntry(const ArtEntry& entry, const QString& family)
{
    Canvas canvas(
        artPixels(entry.widthPt), artPixels(entry.heightPt), entry.widthPt, entry.heightPt);
    switch (entry.kind) {
        case ArtKind::Backplate:
            drawBackplate(canvas);
            break;
        case ArtKind::Label:
            drawLabel(canvas, entry, family);
            break;
        case ArtKind::Logo:
            drawLogo(canvas, entry, family);
            break;
        case ArtKind::Led:
            drawLed(canvas, entry);
            break;
        case ArtKind::BigButton:
        case ArtKind::RateButton:
            drawButton(canvas, entry, family);
            break;
        case ArtKind::Lamp:
            drawLamp(canvas, entry);
            break;
    }
    return canvas.image();
}

// ---- Output ----------------------------------------------------------------------------------

enum class Outcome { Unchanged, Written, Failed };

// Writes `bytes` to `path` unless the file already holds exactly them.
Outcome writeIfChanged(const QString& path, const QByteArray& bytes)
{
    QFile existing(path);
    if (existing.open(QIODevice::ReadOnly) && existing.readAll() == bytes) {
        return Outcome::Unchanged;
    }
    existing.close();
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)
        || file.write(bytes) != bytes.size()) {
        std::fprintf(stderr, "draw_art: cannot write %s\n", qPrintable(path));
        return Outcome::Failed;
    }
    return Outcome::Written;
}

Outcome writePng(const QString& path, QImage image)
{
    // No resolution in the file: the loader sets the device pixel ratio itself.
    image.setDotsPerMeterX(0);
    image.setDotsPerMeterY(0);
    QByteArray bytes;
    QBuffer buffer(&bytes);
    buffer.open(QIODevice::WriteOnly);
    if (!image.convertToFormat(QImage::Format_ARGB32).save(&buffer, "PNG", 0)) {
        std::fprintf(stderr, "draw_art: cannot encode %s\n", qPrintable(path));
        return Outcome::Failed;
    }
    return writeIfChanged(path, bytes);
}

QString nameOf(const ArtEntry& entry)
{
    return QString::fromUtf8(entry.name.data(), static_cast<qsizetype>(entry.name.size()));
}

}  // namespace

int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        qputenv("QT_QPA_PLATFORM", "offscreen");
    }
    const QGuiApplication app(argc, argv);
    const QStringList arguments = QGuiApplication::arguments();
    if (arguments.size() < 2) {
        std::fprintf(stderr, "usage: kestrin_draw_art <output directory> <name>...\n");
        return 2;
    }

    std::set<QString> expected(arguments.begin() + 2, arguments.end());
    std::set<QString> known;
    for (const ArtEntry& entry : kArtCatalog) {
        known.insert(nameOf(entry));
    }
    if (expected != known) {
        std::fprintf(stderr, "draw_art: the build's list of images differs from the catalog\n");
        return 2;
    }

    const QDir directory(arguments.at(1));
    if (!QDir().mkpath(directory.path())) {
        std::fprintf(stderr, "draw_art: cannot make %s\n", qPrintable(directory.path()));
        return 1;
    }
    const QString family = loadFamily();

    // rcc learns of changed images through the resource file, so it is rewritten (with the same
    // text) whenever an image changes.
    QString qrc =
        QStringLiteral("<!DOCTYPE RCC>\n<RCC version=\"1.0\">\n<qresource prefix=\"/art\">\n");
    std::vector<Outcome> outcomes;
    for (const ArtEntry& entry : kArtCatalog) {
        const QString file = nameOf(entry) + QStringLiteral(".png");
        outcomes.push_back(writePng(directory.filePath(file), drawEntry(entry, family)));
        qrc += QStringLiteral("  <file>") + file + QStringLiteral("</file>\n");
    }
    const QString icon =
        QString::fromUtf8(kestrin::ui::detail::kIconName.data(),
                          static_cast<qsizetype>(kestrin::ui::detail::kIconName.size()))
        + QStringLiteral(".png");
    Canvas iconCanvas(
        kestrin::ui::detail::kIconPixels, kestrin::ui::detail::kIconPixels, 128.0, 128.0);
    drawIcon(iconCanvas, family);
    outcomes.push_back(writePng(directory.filePath(icon), iconCanvas.image()));
    qrc += QStringLiteral("  <file>") + icon + QStringLiteral("</file>\n</qresource>\n</RCC>\n");

    const auto has = [&](Outcome outcome) {
        return std::find(outcomes.begin(), outcomes.end(), outcome) != outcomes.end();
    };
    const QString qrcPath = directory.filePath(QStringLiteral("kestrin_art.qrc"));
    if (has(Outcome::Written)) {
        QFile::remove(qrcPath);
    }
    outcomes.push_back(writeIfChanged(qrcPath, qrc.toUtf8()));
    return has(Outcome::Failed) ? 1 : 0;
}
