#include "focus_ring.hpp"

#include <kestrin/ui/timecode_entry.hpp>
#include <kestrin/ui/timecode_field.hpp>
#include <kestrin/ui/timecode_key_loop.hpp>

#include <QClipboard>
#include <QFocusEvent>
#include <QFontMetrics>
#include <QGuiApplication>
#include <QKeyEvent>
#include <QMouseEvent>
#include <QPainter>
#include <QPalette>

namespace kestrin::ui {
namespace {

QFont fieldFont()
{
    // DejaVu Sans Mono has no light face; the weight is asked for and the nearest one used.
    QFont font(QStringLiteral("DejaVu Sans Mono"));
    font.setStyleHint(QFont::Monospace);
    font.setFixedPitch(true);
    font.setPixelSize(TimecodeField::kFontPixelSize);
    font.setWeight(QFont::Light);
    return font;
}

// Text input that enters the field: printable characters typed without a command modifier.
bool isTyping(const QKeyEvent& event)
{
    constexpr auto kCommandModifiers = Qt::ControlModifier | Qt::AltModifier | Qt::MetaModifier;
    const QString text = event.text();
    return !text.isEmpty() && text.front().isPrint() && !(event.modifiers() & kCommandModifiers);
}

}  // namespace

const QColor TimecodeField::kValidColor = QColor::fromRgbF(0.204F, 0.780F, 0.349F, 0.7F);
const QColor TimecodeField::kInvalidColor = QColor::fromRgbF(1.0F, 0.231F, 0.188F, 0.7F);

TimecodeField::TimecodeField(TimecodeFieldId id,
                             bool dropFrame,
                             core::FrameRate nominalFps,
                             QWidget* parent)
    : QLineEdit(parent)
    , id_(id)
    , judgedDropFrame_(dropFrame)
    , judgedNominalFps_(nominalFps)
    , dropFrame_(dropFrame)
    , nominalFps_(nominalFps)
    , digits_(normalizedDigits(u""))
{
    // Click focus only: never the window's first focus, never reached by Tab from elsewhere; the
    // key loop hands focus between the two fields itself.
    setFocusPolicy(Qt::ClickFocus);
    setFrame(false);
    setAlignment(Qt::AlignCenter);
    setFont(fieldFont());
    setContextMenuPolicy(Qt::NoContextMenu);
    setAcceptDrops(false);
    setAttribute(Qt::WA_InputMethodEnabled, false);
    setAttribute(Qt::WA_MacShowFocusRect, false);
    showDigits();
    showVerdict(false);
    if (parent != nullptr) {
        placeRing();
    }
}

TimecodeField::~TimecodeField()
{
    delete ring_.data();
}

void TimecodeField::setDigits(const QString& digits)
{
    const QString kept = normalizedDigits(digits);
    if (kept != digits_) {
        digits_ = kept;
        showDigits();
    }
}

void TimecodeField::setDropFrame(bool dropFrame)
{
    if (dropFrame != dropFrame_) {
        dropFrame_ = dropFrame;
        showDigits();
    }
}

void TimecodeField::setNominalFps(core::FrameRate nominalFps)
{
    nominalFps_ = nominalFps;
}

void TimecodeField::setValid(bool isValid)
{
    showVerdict(isValid);
}

QSize TimecodeField::sizeHint() const
{
    const QFontMetrics metrics(font());
    return {metrics.horizontalAdvance(QStringLiteral("00:00:00:00")) + 4, metrics.height() + 2};
}

void TimecodeField::applyEdit(const QString& newDigits)
{
    if (newDigits == digits_) {
        return;
    }
    digits_ = newDigits;
    showDigits();
    showVerdict(isValidFieldDigits(digits_, judgedDropFrame_, judgedNominalFps_));
    emit digitsEdited(digits_);
}

void TimecodeField::showDigits()
{
    const QString shown = fieldText(digits_, dropFrame_);
    if (shown != text()) {
        setText(shown);  // also puts the (hidden) cursor at the end and clears any selection
    }
}

void TimecodeField::showVerdict(bool isValid)
{
    isValid_ = isValid;
    const QColor& colour = isValid ? kValidColor : kInvalidColor;
    if (palette().color(QPalette::Text) != colour) {
        QPalette colours = palette();
        colours.setColor(QPalette::Text, colour);
        setPalette(colours);  // repaints
    }
}

void TimecodeField::paintEvent(QPaintEvent* /*event*/)
{
    // Only the text: no frame, background, caret or selection.
    QPainter painter(this);
    painter.setRenderHint(QPainter::TextAntialiasing);
    painter.setFont(font());
    painter.setPen(palette().color(QPalette::Text));
    painter.drawText(rect(), Qt::AlignCenter, text());
}

void TimecodeField::keyPressEvent(QKeyEvent* event)
{
    if (event->matches(QKeySequence::Paste)) {
        applyEdit(digitsAfterInsert(digits_, QGuiApplication::clipboard()->text()));
    } else if (event->matches(QKeySequence::Copy)) {
        QGuiApplication::clipboard()->setText(text());
    } else if (event->key() == Qt::Key_Backspace) {
        applyEdit(digitsAfterBackspace(digits_));
    } else if (isTyping(*event)) {
        applyEdit(digitsAfterInsert(digits_, event->text()));
    } else {
        // Caret movement, selection and undo mean nothing without a caret; Return, Escape and
        // the window's shortcuts go on to the parent.
        event->ignore();
        return;
    }
    event->accept();
}

// The mouse only gives focus (Qt does that before the press arrives, by the focus policy); it
// neither moves a caret nor selects, nor pastes the X11 selection.
void TimecodeField::mousePressEvent(QMouseEvent* event)
{
    event->accept();
}

void TimecodeField::mouseMoveEvent(QMouseEvent* event)
{
    event->accept();
}

void TimecodeField::mouseReleaseEvent(QMouseEvent* event)
{
    event->accept();
}

void TimecodeField::mouseDoubleClickEvent(QMouseEvent* event)
{
    event->accept();
}

void TimecodeField::focusInEvent(QFocusEvent* event)
{
    QLineEdit::focusInEvent(event);
    deselect();  // QLineEdit selects everything on Tab focus
    end(false);
    placeRing();
    if (ring_ != nullptr) {
        ring_->raise();
        ring_->show();
    }
}

void TimecodeField::focusOutEvent(QFocusEvent* event)
{
    QLineEdit::focusOutEvent(event);
    if (ring_ != nullptr) {
        ring_->hide();
    }
}

bool TimecodeField::focusNextPrevChild(bool next)
{
    TimecodeField* other = keyLoop_ != nullptr ? keyLoop_->partner(this) : nullptr;
    if (other == nullptr || !other->isVisible() || !other->isEnabled()) {
        return QLineEdit::focusNextPrevChild(next);
    }
    other->setFocus(next ? Qt::TabFocusReason : Qt::BacktabFocusReason);
    return true;
}

void TimecodeField::moveEvent(QMoveEvent* event)
{
    QLineEdit::moveEvent(event);
    placeRing();
}

void TimecodeField::resizeEvent(QResizeEvent* event)
{
    QLineEdit::resizeEvent(event);
    placeRing();
}

void TimecodeField::hideEvent(QHideEvent* event)
{
    QLineEdit::hideEvent(event);
    if (ring_ != nullptr) {
        ring_->hide();
    }
}

void TimecodeField::changeEvent(QEvent* event)
{
    QLineEdit::changeEvent(event);
    if (event->type() == QEvent::ParentChange) {
        placeRing();
    }
}

void TimecodeField::placeRing()
{
    QWidget* const parent = parentWidget();
    if (parent == nullptr || isWindow()) {
        delete ring_.data();
        return;
    }
    if (ring_ == nullptr) {
        ring_ = new detail::FocusRing(parent);
    } else if (ring_->parentWidget() != parent) {
        ring_->setParent(parent);  // hides it; focus shows it again
    }
    static_cast<detail::FocusRing*>(ring_.data())->surround(geometry());
}

}  // namespace kestrin::ui
