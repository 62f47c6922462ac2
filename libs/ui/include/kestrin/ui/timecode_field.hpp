#pragma once

#include <kestrin/core/frame_rate.hpp>

#include <QColor>
#include <QLineEdit>
#include <QPointer>
#include <QSize>
#include <QString>

class QEvent;
class QFocusEvent;
class QHideEvent;
class QKeyEvent;
class QMouseEvent;
class QMoveEvent;
class QPaintEvent;
class QResizeEvent;

namespace kestrin::ui {

class TimecodeKeyLoop;

/// Which of the panel's two timecode fields a field is.
enum class TimecodeFieldId {
    sessionStart,  ///< the timecode at which the sound session begins
    videoStart,    ///< the timecode at which the video begins
};

/// Keypad-style timecode entry: always shows a whole timecode HH:MM:SS:FF (";" before the frames
/// under drop-frame); each typed digit enters at the right and pushes the others left, only the
/// last eight digits count, other characters change nothing, a paste keeps the last eight of its
/// numerals, Backspace takes the last digit away. There is no caret, no selection and no frame or
/// background: the owner draws the plate behind the field.
///
/// The text is green when the digits are valid and red when they are not, both at alpha 0.7.
/// After each edit the field judges the new digits itself at once, with the drop-frame flag and
/// nominal rate it was constructed with; the owner's own verdict, which may come later and at
/// the current rate, replaces it through `setValid`.
///
/// Focus: the field never takes focus by itself (not when its window opens, not by Tab from
/// other widgets). It takes focus when clicked, or by Tab or Shift-Tab from the other field of
/// its `TimecodeKeyLoop`, and then shows a soft green ring around itself (5 outside it across,
/// 2.5 down, with a glow of 6 more); losing focus hides it. The ring is a sibling widget that
/// takes no clicks, so it may overlap neighbours; a field without a parent widget has no ring.
///
/// Interface thread only, as every widget.
class TimecodeField : public QLineEdit
{
    Q_OBJECT

public:
    /// Text colour for valid digits (green, alpha 0.7).
    static const QColor kValidColor;
    /// Text colour for invalid digits (red, alpha 0.7).
    static const QColor kInvalidColor;
    /// Pixel size of the monospaced light font the timecode is drawn in.
    static constexpr int kFontPixelSize = 22;

    /// A field `id` showing "00:00:00:00" in red. `dropFrame` and `nominalFps` are the settings
    /// in force: the display follows later `setDropFrame` calls, while the immediate verdict after
    /// an edit keeps judging with these (see the class comment).
    TimecodeField(TimecodeFieldId id,
                  bool dropFrame,
                  core::FrameRate nominalFps,
                  QWidget* parent = nullptr);
    ~TimecodeField() override;
    TimecodeField(const TimecodeField&) = delete;
    TimecodeField& operator=(const TimecodeField&) = delete;
    TimecodeField(TimecodeField&&) = delete;
    TimecodeField& operator=(TimecodeField&&) = delete;

    [[nodiscard]] TimecodeFieldId fieldId() const { return id_; }
    /// The eight-character digit string the field keeps (HHMMSSFF, no separators).
    [[nodiscard]] QString digits() const { return digits_; }
    [[nodiscard]] bool isDropFrame() const { return dropFrame_; }
    [[nodiscard]] core::FrameRate nominalFps() const { return nominalFps_; }
    /// The verdict the text colour shows: the owner's last one, or the field's own after an edit.
    [[nodiscard]] bool isValid() const { return isValid_; }

    /// Shows `digits` (any text: its numeric characters, the last eight, "0"-padded). Emits
    /// nothing. A no-op when they are what the field keeps, so an owner may call it on every
    /// change of its model; while the user edits, the shown text is replaced and nothing else.
    void setDigits(const QString& digits);
    /// Chooses ";" (true) or ":" before the frames.
    void setDropFrame(bool dropFrame);
    /// The nominal rate carried with the field's settings; it does not change the immediate
    /// verdict after an edit (see the class comment).
    void setNominalFps(core::FrameRate nominalFps);
    /// The owner's verdict on the digits: green text when true, red when false.
    void setValid(bool isValid);

    /// Room for a whole timecode in the field's font.
    [[nodiscard]] QSize sizeHint() const override;

signals:
    /// The user changed the digit string by typing, pasting or Backspace; `digits` is the new
    /// eight-character string. Not emitted by the setters, nor by an edit that leaves the digits
    /// as they were (a letter, say).
    void digitsEdited(const QString& digits);

protected:
    void paintEvent(QPaintEvent* event) override;
    void keyPressEvent(QKeyEvent* event) override;
    void mousePressEvent(QMouseEvent* event) override;
    void mouseMoveEvent(QMouseEvent* event) override;
    void mouseReleaseEvent(QMouseEvent* event) override;
    void mouseDoubleClickEvent(QMouseEvent* event) override;
    void focusInEvent(QFocusEvent* event) override;
    void focusOutEvent(QFocusEvent* event) override;
    bool focusNextPrevChild(bool next) override;
    void moveEvent(QMoveEvent* event) override;
    void resizeEvent(QResizeEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void changeEvent(QEvent* event) override;

private:
    friend class TimecodeKeyLoop;

    void applyEdit(const QString& newDigits);
    void showDigits();
    void showVerdict(bool isValid);
    void placeRing();

    const TimecodeFieldId id_;
    // The settings the immediate verdict judges with; immutable after construction.
    const bool judgedDropFrame_;
    const core::FrameRate judgedNominalFps_;
    bool dropFrame_;
    core::FrameRate nominalFps_;
    bool isValid_ = false;
    QString digits_;
    QPointer<TimecodeKeyLoop> keyLoop_;  // set by TimecodeKeyLoop::add
    QPointer<QWidget> ring_;             // a sibling, made when the field first has a parent
};

}  // namespace kestrin::ui
