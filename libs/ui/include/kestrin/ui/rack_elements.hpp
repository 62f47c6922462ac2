#pragma once

// The elements of the rack panel: image buttons, lights, the LED bar and the file-name display.
// Each one draws the state it is given and holds nothing else; RackPanel places them and feeds
// them from its view model. Rectangles are in points of the panel (origin at its top-left
// corner); an element's widget covers the whole pixels around its rectangle and draws at the
// exact fractional place. Drop shadows are drawn by the panel underneath, so that they may spread
// over the neighbours. Interface thread only, as every widget.

#include <QAbstractButton>
#include <QPixmap>
#include <QRectF>
#include <QString>
#include <QVariantAnimation>
#include <QWidget>

#include <filesystem>
#include <optional>

class QEvent;
class QPaintEvent;

namespace kestrin::ui {

/// The panel's 14 buttons, in drawing order.
enum class RackButtonId {
    selectVideo,
    startScan,
    acancel,
    exportMIDI,
    fps23976,
    fps24,
    fps25,
    fps2997,
    fps30,
    fps50,
    fps5994,
    fps60,
    DF,
    NDF,
};

/// An image button: the art "<nameBase>_ON" when lit, "<nameBase>_OFF" when not, stretched over
/// its rectangle. A disabled button (QWidget::setEnabled) looks exactly like an enabled one in
/// the same lit state and ignores clicks. It never takes the focus, so a click does not take it
/// from a timecode field. For assistive technology: the name is `nameBase`, the description
/// "Enabled" or "Disabled".
class RackButton : public QAbstractButton
{
    Q_OBJECT

public:
    RackButton(RackButtonId id, const QString& nameBase, const QRectF& rectPt, QWidget* parent);

    [[nodiscard]] RackButtonId buttonId() const { return id_; }
    [[nodiscard]] bool isLit() const { return isLit_; }
    void setLit(bool isLit);
    /// The art shown now ("StartScan_ON").
    [[nodiscard]] QString imageName() const;
    /// Where the image lies on the panel.
    [[nodiscard]] QRectF panelRect() const { return panelRect_; }

protected:
    void paintEvent(QPaintEvent* event) override;
    /// Only the image's own rectangle takes clicks, not the pixels rounded out around it.
    [[nodiscard]] bool hitButton(const QPoint& pos) const override;
    void changeEvent(QEvent* event) override;

private:
    const RackButtonId id_;
    const QString nameBase_;
    const QRectF panelRect_;
    const QPixmap litImage_;
    const QPixmap unlitImage_;
    bool isLit_ = false;
};

/// A light that shows one of two images (on and off), stretched over its rectangle without
/// smoothing. Takes no clicks. Its accessible name is `accessiblePrefix` followed by "on" or
/// "off".
class RackLight : public QWidget
{
    Q_OBJECT

public:
    RackLight(const QString& onImage,
              const QString& offImage,
              const QString& accessiblePrefix,
              const QRectF& rectPt,
              QWidget* parent);

    [[nodiscard]] bool isOn() const { return isOn_; }
    void setOn(bool isOn);
    /// The art shown now.
    [[nodiscard]] QString imageName() const { return isOn_ ? onName_ : offName_; }
    [[nodiscard]] QRectF panelRect() const { return panelRect_; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    void describe();

    const QString onName_;
    const QString offName_;
    const QString accessiblePrefix_;
    const QRectF panelRect_;
    const QPixmap onImage_;
    const QPixmap offImage_;
    bool isOn_ = false;
};

/// A row of `count` LEDs ("led_on"/"led_off" art, drawn without smoothing) showing a fraction:
/// the first litCount(progress, count) of them are lit. A change of the lit count fades the LEDs
/// between the two counts over kFadeMs. Takes no clicks. Its accessible name is the whole
/// percentage, truncated towards zero, followed by " percent" ("50 percent").
class ProgressLedBar : public QWidget
{
    Q_OBJECT

public:
    /// Duration of the fade between two lit counts.
    static constexpr int kFadeMs = 80;

    /// The bar centred at `centrePt`: `count` LEDs of `ledSizePt`, `gapPt` apart. `count` must not
    /// be negative.
    ProgressLedBar(QPointF centrePt, int count, QSizeF ledSizePt, qreal gapPt, QWidget* parent);

    /// LEDs lit for `progress`: floor(progress × count) with progress clamped to 0…1; not-a-number
    /// counts as 0. 0.5 of 32 lights 16, 0.999 lights 31, 1 and above light all.
    [[nodiscard]] static int litCount(double progress, int count);

    [[nodiscard]] double progress() const { return progress_; }
    void setProgress(double progress);
    /// The LEDs lit now (the target of a fade in progress).
    [[nodiscard]] int litCount() const { return litCount(progress_, count_); }
    [[nodiscard]] int count() const { return count_; }
    /// Where LED `index` (0 at the left) lies on the panel.
    [[nodiscard]] QRectF ledPanelRect(int index) const;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    const int count_;
    const QSizeF ledSize_;
    const qreal gap_;
    const QRectF panelRect_;
    const QPixmap onImage_;
    const QPixmap offImage_;
    double progress_ = 0.0;
    // The fade runs from fadeFrom_ lit LEDs to litCount().
    int fadeFrom_ = 0;
    QVariantAnimation fade_;
};

/// The name of the chosen video (its last path component) or "No video loaded", in a small green
/// monospaced light font, elided in the middle when too long, inset 8 points left and right. The
/// panel draws the plate behind it. Its accessible name is the whole text.
class VideoLabel : public QWidget
{
    Q_OBJECT

public:
    VideoLabel(const QRectF& rectPt, QWidget* parent);

    void setVideo(const std::optional<std::filesystem::path>& video);
    /// The whole text, before eliding.
    [[nodiscard]] QString text() const { return text_; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    const QRectF panelRect_;
    QString text_;
};

}  // namespace kestrin::ui
