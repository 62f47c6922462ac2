#include "drop_shadow.hpp"
#include "rack_layout.hpp"

#include <kestrin/core/safe_file.hpp>
#include <kestrin/ui/art.hpp>
#include <kestrin/ui/rack_panel.hpp>
#include <kestrin/ui/timecode_key_loop.hpp>

#include <QFile>
#include <QFileDialog>
#include <QMessageBox>
#include <QPainter>

#include <array>
#include <cmath>
#include <string_view>
#include <utility>

namespace kestrin::ui {
namespace {

using app::EditDetectorViewModel;

QString toQString(std::string_view text)
{
    return QString::fromLatin1(text.data(), static_cast<qsizetype>(text.size()));
}

QString toQString(const std::filesystem::path& path)
{
    return QFile::decodeName(path.native().c_str());
}

std::filesystem::path toPath(const QString& path)
{
    return {QFile::encodeName(path).toStdString()};
}

struct ButtonState
{
    bool isEnabled;
    bool isLit;
};

ButtonState buttonState(RackButtonId id, const EditDetectorViewModel& model)
{
    const bool isIdle = !model.isProcessing();
    switch (id) {
        case RackButtonId::selectVideo:
            return {isIdle, isIdle};
        case RackButtonId::startScan:
            return {model.canStartScan(), model.canStartScan()};
        case RackButtonId::acancel:
            return {!isIdle, !isIdle};
        case RackButtonId::exportMIDI:
            return {model.canExport(), model.canExport()};
        case RackButtonId::DF:
        case RackButtonId::NDF: {
            const bool isApplicable = model.isDropFrameApplicable();
            const bool wantsDropFrame = id == RackButtonId::DF;
            return {isApplicable && isIdle, isApplicable && model.isDropFrame() == wantsDropFrame};
        }
        default:
            return {isIdle, detail::buttonRate(id) == model.nominalFPS()};
    }
}

// The rounded plate behind the fields and the file name: black at 75 % with a faint light edge,
// on a soft dark shadow.
void drawPlate(QPainter& painter, const QRectF& box)
{
    constexpr qreal kCornerRadius = 6;
    constexpr qreal kShadowBlur = 3;
    QImage shape((box.size() * kArtDevicePixelRatio).toSize(), QImage::Format_ARGB32_Premultiplied);
    shape.fill(Qt::transparent);
    {
        QPainter shapePainter(&shape);
        shapePainter.setRenderHint(QPainter::Antialiasing);
        shapePainter.scale(kArtDevicePixelRatio, kArtDevicePixelRatio);
        shapePainter.setPen(Qt::NoPen);
        shapePainter.setBrush(Qt::black);
        shapePainter.drawRoundedRect(QRectF(QPointF(), box.size()), kCornerRadius, kCornerRadius);
    }
    detail::drawDropShadow(painter, shape, box, kShadowBlur, {}, QColor::fromRgbF(0, 0, 0, 0.33F));
    painter.setPen(QPen(QColor::fromRgbF(1, 1, 1, 0.15F), 1));
    painter.setBrush(QColor::fromRgbF(0, 0, 0, 0.75F));
    painter.drawRoundedRect(box.adjusted(0.5, 0.5, -0.5, -0.5), kCornerRadius, kCornerRadius);
}

// The shadow under every image the panel shows: black at 80 %, blur 8, 4 points down.
void drawArtShadow(QPainter& painter, const QPixmap& image, const QRectF& rect)
{
    constexpr qreal kBlur = 8;
    constexpr QPointF kOffset{0, 4};
    detail::drawDropShadow(
        painter, image.toImage(), rect, kBlur, kOffset, QColor::fromRgbF(0, 0, 0, 0.8F));
}

QRect fieldGeometry(const QRectF& box)
{
    return box.adjusted(detail::kFieldInset, 0, -detail::kFieldInset, 0).toRect();
}

}  // namespace

QStringList videoFilePatterns()
{
    static constexpr auto kExtensions = std::to_array<std::string_view>({
        "mov",  "mp4", "m4v", "mkv", "webm", "avi", "mxf", "mpg", "mpeg", "m2v", "ts",  "mts",
        "m2ts", "dv",  "flv", "wmv", "asf",  "ogv", "3gp", "3g2", "vob",  "nut", "y4m",
    });
    QStringList patterns;
    for (const std::string_view extension : kExtensions) {
        // File systems here tell case apart: offer "clip.MOV" as well as "clip.mov".
        const QString lower = toQString(extension);
        patterns << QStringLiteral("*.") + lower << QStringLiteral("*.") + lower.toUpper();
    }
    return patterns;
}

RackDialogs fileDialogs()
{
    RackDialogs dialogs;
    dialogs.chooseVideo = [](QWidget* parent) -> std::optional<std::filesystem::path> {
        QFileDialog dialog(parent, QObject::tr("Select Video"));
        dialog.setFileMode(QFileDialog::ExistingFile);
        dialog.setNameFilter(
            QObject::tr("Video files (%1)").arg(videoFilePatterns().join(QLatin1Char(' '))));
        if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) {
            return std::nullopt;
        }
        return toPath(dialog.selectedFiles().constFirst());
    };
    dialogs.chooseMIDIDestination =
        [](QWidget* parent,
           const std::filesystem::path& proposed) -> std::optional<std::filesystem::path> {
        const QString extension = toQString(midi::MIDIFileDocument::kFileExtension);
        QFileDialog dialog(parent,
                           QObject::tr("Export MIDI"),
                           toQString(proposed),
                           QObject::tr("MIDI files (*.%1)").arg(extension));
        dialog.setAcceptMode(QFileDialog::AcceptSave);
        dialog.setFileMode(QFileDialog::AnyFile);
        dialog.setDefaultSuffix(extension);
        if (dialog.exec() != QDialog::Accepted || dialog.selectedFiles().isEmpty()) {
            return std::nullopt;
        }
        return toPath(dialog.selectedFiles().constFirst());
    };
    return dialogs;
}

std::filesystem::path proposedMIDIPath(const std::optional<std::filesystem::path>& video)
{
    const std::string suffix = "_Markers." + std::string(midi::MIDIFileDocument::kFileExtension);
    if (!video) {
        return "Kestrin Edits" + suffix;
    }
    return video->parent_path() / (video->stem().native() + suffix);
}

RackPanel::RackPanel(std::unique_ptr<EditDetectorViewModel> model,
                     RackDialogs dialogs,
                     QWidget* parent)
    : QWidget(parent)
    , model_(std::move(model))
    , dialogs_(std::move(dialogs))
{
    Q_ASSERT(model_ != nullptr);
    setFixedSize(kSize);
    // The background covers every pixel.
    setAttribute(Qt::WA_OpaquePaintEvent);

    videoLabel_ = new VideoLabel(detail::kVideoLabelBox, this);
    sessionStartField_ = new TimecodeField(
        TimecodeFieldId::sessionStart, model_->isDropFrame(), model_->nominalFPS(), this);
    sessionStartField_->setGeometry(fieldGeometry(detail::kSessionStartBox));
    videoStartField_ = new TimecodeField(
        TimecodeFieldId::videoStart, model_->isDropFrame(), model_->nominalFPS(), this);
    videoStartField_->setGeometry(fieldGeometry(detail::kVideoStartBox));
    auto* keyLoop = new TimecodeKeyLoop(this);
    keyLoop->add(sessionStartField_);
    keyLoop->add(videoStartField_);
    scanLight_ = new RackLight(QStringLiteral("led_on"),
                               QStringLiteral("led_off"),
                               QStringLiteral("Scan "),
                               detail::kScanLedRect,
                               this);
    progressBar_ = new ProgressLedBar(
        detail::kLedBarCentre, detail::kLedCount, detail::kLedSize, detail::kLedGap, this);
    const QString lamp = toQString(detail::kLampNameBase);
    keyframeLamp_ = new RackLight(lamp + QStringLiteral("_ON"),
                                  lamp + QStringLiteral("_OFF"),
                                  QStringLiteral("Keyframe trust "),
                                  detail::kLampRect,
                                  this);
    for (std::size_t i = 0; i < detail::kRackButtons.size(); ++i) {
        const detail::RackButtonSpec& spec = detail::kRackButtons[i];
        auto* button = new RackButton(spec.id, toQString(spec.nameBase), spec.rect(), this);
        connect(button, &QAbstractButton::clicked, this, [this, id = spec.id] { press(id); });
        buttons_[i] = button;
    }
    keyframeLamp_->raise();

    connect(sessionStartField_, &TimecodeField::digitsEdited, this, [this](const QString& digits) {
        model_->setSessionStartDigits(digits.toStdString());
    });
    connect(videoStartField_, &TimecodeField::digitsEdited, this, [this](const QString& digits) {
        model_->setVideoStartDigits(digits.toStdString());
    });

    EditDetectorViewModel* const vm = model_.get();
    connect(vm,
            &EditDetectorViewModel::selectedURLChanged,
            this,
            [this](const std::optional<std::filesystem::path>& url) {
                if (url) {
                    model_->loadVideoInfo(*url);
                }
            });
    connect(vm, &EditDetectorViewModel::errorMessageChanged, this, &RackPanel::showErrorMessage);
    connect(vm, &EditDetectorViewModel::scanWarningChanged, this, &RackPanel::showScanWarning);
    connect(vm, &EditDetectorViewModel::selectedURLChanged, this, &RackPanel::showModel);
    connect(vm, &EditDetectorViewModel::nominalFPSChanged, this, &RackPanel::showModel);
    connect(vm, &EditDetectorViewModel::detectedIsDropFrameChanged, this, &RackPanel::showModel);
    connect(vm, &EditDetectorViewModel::userPrefersDropFrameChanged, this, &RackPanel::showModel);
    connect(vm, &EditDetectorViewModel::markersChanged, this, &RackPanel::showModel);
    connect(vm, &EditDetectorViewModel::isProcessingChanged, this, &RackPanel::showModel);
    connect(vm, &EditDetectorViewModel::scanLEDisOnChanged, this, &RackPanel::showModel);
    connect(vm, &EditDetectorViewModel::progressChanged, this, &RackPanel::showModel);
    connect(vm, &EditDetectorViewModel::isKeyframesTrustedChanged, this, &RackPanel::showModel);
    connect(vm, &EditDetectorViewModel::sessionStartDigitsChanged, this, &RackPanel::showModel);
    connect(vm, &EditDetectorViewModel::videoStartDigitsChanged, this, &RackPanel::showModel);
    connect(vm, &EditDetectorViewModel::isSessionTCValidChanged, this, &RackPanel::showModel);
    connect(vm, &EditDetectorViewModel::isVideoTCValidChanged, this, &RackPanel::showModel);
    // A field colours its text by its own verdict as the user types, until the view model stores
    // its verdict (about 150 ms after the typing stops, or when the rate changes): only then is
    // the field's colour the view model's again.
    connect(
        vm, &EditDetectorViewModel::isSessionTCValidChanged, sessionStartField_, [this](bool v) {
            sessionStartField_->setValid(v);
        });
    connect(vm, &EditDetectorViewModel::isVideoTCValidChanged, videoStartField_, [this](bool v) {
        videoStartField_->setValid(v);
    });
    sessionStartField_->setValid(vm->isSessionTCValid());
    videoStartField_->setValid(vm->isVideoTCValid());
    showModel();
    showErrorMessage();
    showScanWarning();
}

RackPanel::~RackPanel()
{
    // The view model goes first and may still signal while it stops its work; nothing of the
    // panel is to be drawn from then on.
    model_->disconnect(this);
}

void RackPanel::selectVideo(const std::filesystem::path& video)
{
    if (model_->isProcessing()) {
        return;
    }
    model_->setSelectedURL(video);
    model_->loadVideoInfo(video);
}

RackButton* RackPanel::button(RackButtonId id) const
{
    return buttons_.at(static_cast<std::size_t>(id));
}

void RackPanel::paintEvent(QPaintEvent* /*event*/)
{
    const qreal ratio = devicePixelRatioF();
    if (background_.isNull() || !qFuzzyCompare(background_.devicePixelRatio(), ratio)) {
        background_ = drawBackground(ratio);
    }
    QPainter painter(this);
    painter.drawPixmap(0, 0, background_);
}

void RackPanel::showModel()
{
    const EditDetectorViewModel& vm = *model_;
    videoLabel_->setVideo(vm.selectedURL());
    // Every field follows every change, like a redraw (its colour follows the validity signals).
    const bool isDropFrame = vm.isDropFrame();
    const auto showField = [&](TimecodeField& field, const std::string& digits) {
        field.setDigits(QString::fromStdString(digits));
        field.setDropFrame(isDropFrame);
        field.setNominalFps(vm.nominalFPS());
    };
    showField(*sessionStartField_, vm.sessionStartDigits());
    showField(*videoStartField_, vm.videoStartDigits());
    scanLight_->setOn(vm.scanLEDisOn());
    progressBar_->setProgress(vm.progress());
    keyframeLamp_->setOn(vm.isKeyframesTrusted());
    for (RackButton* button : buttons_) {
        const ButtonState state = buttonState(button->buttonId(), vm);
        button->setEnabled(state.isEnabled);
        button->setLit(state.isLit);
    }
}

void RackPanel::showErrorMessage()
{
    showAlert(errorAlert_, tr("Error"), model_->errorMessage(), [this] {
        model_->setErrorMessage(std::nullopt);
    });
}

void RackPanel::showScanWarning()
{
    showAlert(warningAlert_, tr("Scan Incomplete"), model_->scanWarning(), [this] {
        model_->setScanWarning(std::nullopt);
    });
}

void RackPanel::showAlert(QPointer<QMessageBox>& alert,
                          const QString& title,
                          const std::optional<std::string>& message,
                          const std::function<void()>& dismiss)
{
    if (!message) {
        if (alert != nullptr) {
            alert->done(QMessageBox::Ok);
        }
        return;
    }
    const QString text = QString::fromStdString(*message);
    if (alert != nullptr) {
        alert->setText(text);
        return;
    }
    auto* box = new QMessageBox(QMessageBox::Warning, title, text, QMessageBox::Ok, this);
    alert = box;
    // However the alert is closed (OK, Escape, the window's close button), the message goes.
    connect(box, &QDialog::finished, this, [&alert, box, dismiss] {
        box->deleteLater();
        if (alert == box) {
            alert = nullptr;
        }
        dismiss();
    });
    box->open();
}

void RackPanel::press(RackButtonId id)
{
    EditDetectorViewModel& vm = *model_;
    switch (id) {
        case RackButtonId::selectVideo:
            chooseVideo();
            break;
        case RackButtonId::startScan:
            if (vm.canStartScan()) {
                vm.startScan();
            }
            break;
        case RackButtonId::acancel:
            if (vm.isProcessing()) {
                vm.cancelScan();
            }
            break;
        case RackButtonId::exportMIDI:
            exportMIDI();
            break;
        case RackButtonId::DF:
        case RackButtonId::NDF:
            if (vm.isDropFrameApplicable()) {
                vm.setUserPrefersDropFrame(id == RackButtonId::DF);
            }
            break;
        default:
            if (const std::optional<core::FrameRate> rate = detail::buttonRate(id)) {
                vm.setNominalFPS(*rate);
            }
            break;
    }
}

void RackPanel::chooseVideo()
{
    if (!dialogs_.chooseVideo) {
        return;
    }
    if (const std::optional<std::filesystem::path> video = dialogs_.chooseVideo(this)) {
        model_->setSelectedURL(*video);
        model_->loadVideoInfo(*video);
    }
}

void RackPanel::exportMIDI()
{
    EditDetectorViewModel& vm = *model_;
    if (!vm.canExport()) {
        return;
    }
    core::Expected<std::vector<std::uint8_t>> bytes = vm.makeMIDIData();
    if (!bytes) {
        vm.setErrorMessage(bytes.error().description);
        return;
    }
    midiDoc_ = midi::MIDIFileDocument{std::move(*bytes)};
    if (!dialogs_.chooseMIDIDestination) {
        return;
    }
    isExporting_ = true;
    const std::optional<std::filesystem::path> destination =
        dialogs_.chooseMIDIDestination(this, proposedMIDIPath(vm.selectedURL()));
    isExporting_ = false;
    if (destination) {
        saveMIDI(*destination);
    }
}

void RackPanel::saveMIDI(const std::filesystem::path& destination)
{
    // The command-line tool's writer, so both follow one set of rules: the file is replaced whole
    // or not at all, links are written through, directories and special files are refused.
    if (const core::Status written = core::writeFileSafely(destination, midiDoc_->data); !written) {
        model_->setErrorMessage(written.error().description);
    }
}

QPixmap RackPanel::drawBackground(qreal devicePixelRatio) const
{
    QPixmap pixmap((QSizeF(kSize) * devicePixelRatio).toSize());
    pixmap.setDevicePixelRatio(devicePixelRatio);
    pixmap.fill(Qt::black);
    QPainter painter(&pixmap);
    painter.setRenderHints(QPainter::Antialiasing | QPainter::SmoothPixmapTransform);

    const auto drawArt = [&](QStringView name, const QRectF& rect) {
        const QPixmap art = artPixmap(name);
        painter.drawPixmap(rect, art, QRectF(QPointF(), art.size()));
    };
    drawArt(u"backplate14", QRectF(QPointF(), QSizeF(kSize)));
    for (const detail::RackArtSpec& art : detail::kRackArt) {
        drawArt(toQString(art.name), art.rect());
    }
    drawPlate(painter, detail::kVideoLabelBox);
    drawPlate(painter, detail::kSessionStartBox);
    drawPlate(painter, detail::kVideoStartBox);

    // The shadows of the LEDs, the lamp and the buttons, which draw themselves on top. Lit and
    // unlit images have the same outline, so the shadows never change.
    const QPixmap led = artPixmap(u"led_off");
    for (int i = 0; i < progressBar_->count(); ++i) {
        drawArtShadow(painter, led, progressBar_->ledPanelRect(i));
    }
    drawArtShadow(painter, artPixmap(keyframeLamp_->imageName()), keyframeLamp_->panelRect());
    for (const RackButton* button : buttons_) {
        drawArtShadow(painter, artPixmap(button->imageName()), button->panelRect());
    }
    return pixmap;
}

}  // namespace kestrin::ui
