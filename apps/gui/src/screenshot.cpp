#include "screenshot.hpp"

#include <QCoreApplication>
#include <QPixmap>
#include <QTimer>

#include <cstdio>
#include <utility>

namespace kestrin::gui {

using app::EditDetectorViewModel;

ScreenshotDriver::ScreenshotDriver(MainWindow& window,
                                   std::optional<QString> idlePath,
                                   std::optional<QString> scanningPath)
    : QObject(&window)
    , window_(window)
    , idlePath_(std::move(idlePath))
    , scanningPath_(std::move(scanningPath))
{
    // The view model does not say when a load is over; its first result (or its error) does.
    EditDetectorViewModel& model = window_.panel().model();
    connect(
        &model, &EditDetectorViewModel::nominalFPSChanged, this, &ScreenshotDriver::videoLoaded);
    connect(&model,
            &EditDetectorViewModel::detectedIsDropFrameChanged,
            this,
            &ScreenshotDriver::videoLoaded);
    connect(
        &model, &EditDetectorViewModel::errorMessageChanged, this, &ScreenshotDriver::videoLoaded);
    QTimer::singleShot(kLoadWaitMs, this, &ScreenshotDriver::videoLoaded);
}

void ScreenshotDriver::videoLoaded()
{
    if (isLoaded_) {
        return;
    }
    isLoaded_ = true;
    if (idlePath_ && !save(*idlePath_)) {
        finish(false);
        return;
    }
    if (!scanningPath_) {
        finish(true);
        return;
    }
    ui::RackButton* startScan = window_.panel().button(ui::RackButtonId::startScan);
    if (!startScan->isEnabled()) {
        std::fputs("kestrin: cannot start a scan for the screenshot\n", stderr);
        finish(false);
        return;
    }
    EditDetectorViewModel& model = window_.panel().model();
    connect(&model, &EditDetectorViewModel::progressChanged, this, &ScreenshotDriver::scanMoved);
    connect(
        &model, &EditDetectorViewModel::isProcessingChanged, this, &ScreenshotDriver::scanMoved);
    startScan->click();
}

void ScreenshotDriver::scanMoved()
{
    const EditDetectorViewModel& model = window_.panel().model();
    if (isDone_ || (model.isProcessing() && model.progress() < kScanningProgress)) {
        return;
    }
    // Set before Cancel, whose own change signals come back here.
    isDone_ = true;
    if (!model.isProcessing()) {
        std::fputs("kestrin: the scan ended before the screenshot; it shows the end\n", stderr);
    }
    const bool isSaved = save(*scanningPath_);
    window_.panel().button(ui::RackButtonId::acancel)->click();
    finish(isSaved);
}

bool ScreenshotDriver::save(const QString& path)
{
    if (!window_.grab().save(path)) {
        std::fprintf(stderr, "kestrin: cannot write %s\n", qPrintable(path));
        return false;
    }
    return true;
}

void ScreenshotDriver::finish(bool succeeded)
{
    isDone_ = true;
    // Leave the signal that got here before the window goes.
    QTimer::singleShot(0, qApp, [succeeded] { QCoreApplication::exit(succeeded ? 0 : 1); });
}

}  // namespace kestrin::gui
