#pragma once

#include <kestrin/app/edit_detector_view_model.hpp>
#include <kestrin/ui/rack_panel.hpp>

#include <QMainWindow>
#include <QString>

#include <memory>
#include <optional>

class QDragEnterEvent;
class QDropEvent;

namespace kestrin::gui {

/// The application's one window: the rack panel at its fixed size (the window cannot be
/// resized), a File menu with Quit (Ctrl+Q), a Markers menu choosing how exported cut markers are
/// named ("Cut 1, Cut 2, …", by timecode, or blank), and a Help menu whose one item, "Kestrin
/// Help…", opens the user manual in the default browser. A video file dropped on the window is
/// taken as if chosen in the panel's open dialog. Titled "Kestrin". Interface thread only.
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    /// A window with a panel showing `model` and opening `dialogs`. `manual` is the path of the
    /// manual's HTML file; without one the Help item does nothing.
    MainWindow(std::unique_ptr<app::EditDetectorViewModel> model,
               ui::RackDialogs dialogs,
               std::optional<QString> manual,
               QWidget* parent = nullptr);

    [[nodiscard]] ui::RackPanel& panel() const { return *panel_; }

protected:
    void dragEnterEvent(QDragEnterEvent* event) override;
    void dropEvent(QDropEvent* event) override;

private:
    void addMarkerMenu();

    ui::RackPanel* panel_;  // the central widget
    const std::optional<QString> manual_;
};

/// The user manual for a binary in `applicationDir`: `relativeToBinary` from there (the installed
/// copy) when that file exists, else `fallback` (the source tree's copy) when it exists, else
/// absent.
[[nodiscard]] std::optional<QString> findManual(const QString& applicationDir,
                                                const QString& relativeToBinary,
                                                const QString& fallback);

}  // namespace kestrin::gui
