#pragma once

#include "main_window.hpp"

#include <QObject>
#include <QString>

#include <optional>

namespace kestrin::gui {

/// Takes the pictures of the window that the documentation shows, then quits the application
/// (exit code 0, or 1 when a picture could not be taken). Drives the window as a user would:
///  - once the information of the video on the command line is loaded (or after kLoadWaitMs),
///    saves the idle window to `idlePath`;
///  - then, with a `scanningPath`, presses Start Scan and saves the window once the scan has done
///    kScanningProgress of its work, and cancels the scan.
class ScreenshotDriver : public QObject
{
    Q_OBJECT

public:
    static constexpr int kLoadWaitMs = 5000;
    static constexpr double kScanningProgress = 0.3;

    ScreenshotDriver(MainWindow& window,
                     std::optional<QString> idlePath,
                     std::optional<QString> scanningPath);

private:
    void videoLoaded();
    void scanMoved();
    bool save(const QString& path);
    void finish(bool succeeded);

    MainWindow& window_;
    const std::optional<QString> idlePath_;
    const std::optional<QString> scanningPath_;
    bool isLoaded_ = false;
    bool isDone_ = false;
};

}  // namespace kestrin::gui
