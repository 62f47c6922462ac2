#include <kestrin/ui/art.hpp>
#include <kestrin/ui/rack_elements.hpp>

#include <QEvent>
#include <QFile>
#include <QFontMetricsF>
#include <QPainter>

#include <algorithm>
#include <cmath>

namespace kestrin::ui {
namespace {

// The widget of an element covers the whole pixels around its rectangle on the panel.
void place(QWidget& widget, const QRectF& panelRect)
{
    widget.setGeometry(panelRect.toAlignedRect());
}

// The element's rectangle in its widget's coordinates.
QRectF localRect(const QWidget& widget, const QRectF& panelRect)
{
    return panelRect.translated(-QPointF(widget.pos()));
}

void describeAvailability(QWidget& widget)
{
    widget.setAccessibleDescription(widget.isEnabled() ? QStringLiteral("Enabled")
                                                       : QStringLiteral("Disabled"));
}

}  // namespace

RackButton::RackButton(RackButtonId id,
                       const QString& nameBase,
                       const QRectF& rectPt,
                       QWidget* parent)
    : QAbstractButton(parent)
    , id_(id)
    , nameBase_(nameBase)
    , panelRect_(rectPt)
    , litImage_(artPixmap(nameBase + QStringLiteral("_ON")))
    , unlitImage_(artPixmap(nameBase + QStringLiteral("_OFF")))
{
    place(*this, panelRect_);
    setFocusPolicy(Qt::NoFocus);
    setAccessibleName(nameBase_);
    describeAvailability(*this);
}

void RackButton::setLit(bool isLit)
{
    if (isLit != isLit_) {
        isLit_ = isLit;
        update();
    }
}

QString RackButton::imageName() const
{
    return nameBase_ + (isLit_ ? QStringLiteral("_ON") : QStringLiteral("_OFF"));
}

void RackButton::paintEvent(QPaintEvent* /*event*/)
{
    QPainter painter(this);
    painter.setRenderHint(QPainter::SmoothPixmapTransform);
    painter.drawPixmap(localRect(*this, panelRect_),
                       isLit_ ? litImage_ : unlitImage_,
                       QRectF(QPointF(), litImage_.size()));
}

bool RackButton::hitButton(const QPoint& pos) const
{
    return localRect(*this, panelRect_).contains(pos);
}

void RackButton::changeEvent(QEvent* event)
{
    QAbstractButton::changeEvent(event);
    if (event->type() == QEvent::EnabledChange) {
        describeAvailability(*this);
    }
}

RackLight::RackLight(const QString& onImage,
                     const QString& offImage,
                     const QString& accessiblePrefix,
                     const QRectF& rectPt,
                     QWidget* parent)
    : QWidget(parent)
    , onName_(onImage)
    , offName_(offImage)
    , accessiblePrefix_(accessiblePrefix)
    , panelRect_(rectPt)
    , onImage_(artPixmap(onImage))
    , offImage_(artPixmap(offImage))
{
    place(*this, panelRect_);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    describe();
}

void RackLight::setOn(bool isOn)
{
    if (isOn != isOn_) {
        isOn_ = isOn;
        describe();
        update();
    }
}

void RackLight::paintEvent(QPaintEvent* /*event*/)
{
    QPainter painter(this);
    const QPixmap& image = isOn_ ? onImage_ : offImage_;
    painter.drawPixmap(localRect(*this, panelRect_), image, QRectF(QPointF(), image.size()));
}

void RackLight::describe()
{
    setAccessibleName(accessiblePrefix_ + (isOn_ ? QStringLiteral("on") : QStringLiteral("off")));
}

ProgressLedBar::ProgressLedBar(
    QPointF centrePt, int count, QSizeF ledSizePt, qreal gapPt, QWidget* parent)
    : QWidget(parent)
    , count_(std::max(count, 0))
    , ledSize_(ledSizePt)
    , gap_(gapPt)
    , panelRect_([&] {
        const qreal width = count_ * ledSize_.width() + std::max(count_ - 1, 0) * gap_;
        return QRectF(centrePt.x() - width / 2,
                      centrePt.y() - ledSize_.height() / 2,
                      width,
                      ledSize_.height());
    }())
    , onImage_(artPixmap(u"led_on"))
    , offImage_(artPixmap(u"led_off"))
{
    Q_ASSERT(count >= 0);
    place(*this, panelRect_);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setAccessibleName(QStringLiteral("0 percent"));
    fade_.setStartValue(0.0);
    fade_.setEndValue(1.0);
    fade_.setDuration(kFadeMs);
    connect(&fade_, &QVariantAnimation::valueChanged, this, [this] { update(); });
}

int ProgressLedBar::litCount(double progress, int count)
{
    if (!(progress > 0.0)) {
        return 0;
    }
    return static_cast<int>(std::floor(std::min(progress, 1.0) * count));
}

void ProgressLedBar::setProgress(double progress)
{
    const int wasLit = litCount();
    progress_ = progress;
    const double percent = std::isfinite(progress) ? std::trunc(progress * 100) : 0.0;
    setAccessibleName(QStringLiteral("%1 percent").arg(static_cast<long long>(percent)));
    if (litCount() != wasLit) {
        fadeFrom_ = wasLit;
        fade_.stop();
        fade_.start();
        update();
    }
}

QRectF ProgressLedBar::ledPanelRect(int index) const
{
    return {panelRect_.left() + index * (ledSize_.width() + gap_),
            panelRect_.top(),
            ledSize_.width(),
            ledSize_.height()};
}

void ProgressLedBar::paintEvent(QPaintEvent* /*event*/)
{
    QPainter painter(this);
    const int lit = litCount();
    const bool isFading = fade_.state() == QAbstractAnimation::Running;
    const double faded = isFading ? fade_.currentValue().toDouble() : 1.0;
    const QRectF source(QPointF(), onImage_.size());
    for (int i = 0; i < count_; ++i) {
        const QRectF target = ledPanelRect(i).translated(-QPointF(pos()));
        // LEDs between the old and the new count cross-fade towards their new state.
        const bool isChanging = isFading && (i < lit) != (i < fadeFrom_);
        const double onOpacity =
            !isChanging ? (i < lit ? 1.0 : 0.0) : (i < lit ? faded : 1 - faded);
        if (onOpacity < 1.0) {
            painter.setOpacity(1.0);
            painter.drawPixmap(target, offImage_, source);
        }
        if (onOpacity > 0.0) {
            painter.setOpacity(onOpacity);
            painter.drawPixmap(target, onImage_, source);
        }
    }
}

VideoLabel::VideoLabel(const QRectF& rectPt, QWidget* parent)
    : QWidget(parent)
    , panelRect_(rectPt)
{
    place(*this, panelRect_);
    QFont font(QStringLiteral("DejaVu Sans Mono"));
    font.setStyleHint(QFont::Monospace);
    font.setFixedPitch(true);
    font.setPointSizeF(10);
    font.setWeight(QFont::Light);
    setFont(font);
    setAttribute(Qt::WA_TransparentForMouseEvents);
    setVideo(std::nullopt);
}

void VideoLabel::setVideo(const std::optional<std::filesystem::path>& video)
{
    const QString text = video ? QFile::decodeName(video->filename().native().c_str())
                               : QStringLiteral("No video loaded");
    if (text != text_) {
        text_ = text;
        setAccessibleName(text_);
        update();
    }
}

void VideoLabel::paintEvent(QPaintEvent* /*event*/)
{
    constexpr qreal kInset = 8;
    static const QColor kGreen = QColor::fromRgbF(0.204F, 0.780F, 0.349F);
    QPainter painter(this);
    painter.setPen(kGreen);
    const QRectF textRect = localRect(*this, panelRect_).adjusted(kInset, 0, -kInset, 0);
    const QString shown =
        QFontMetricsF(font()).elidedText(text_, Qt::ElideMiddle, textRect.width());
    painter.drawText(textRect, Qt::AlignLeft | Qt::AlignVCenter | Qt::TextSingleLine, shown);
}

}  // namespace kestrin::ui
