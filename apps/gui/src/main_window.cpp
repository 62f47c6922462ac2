#include "main_window.hpp"

#include <QAction>
#include <QApplication>
#include <QDesktopServices>
#include <QDir>
#include <QDragEnterEvent>
#include <QDropEvent>
#include <QFile>
#include <QFileInfo>
#include <QLayout>
#include <QMenu>
#include <QMenuBar>
#include <QMimeData>
#include <QUrl>

#include <utility>

namespace kestrin::gui {
namespace {

// The one local file a drag carries, if that is what it carries.
std::optional<QString> droppedFile(const QMimeData* mime)
{
    if (mime == nullptr || !mime->hasUrls() || mime->urls().size() != 1) {
        return std::nullopt;
    }
    const QUrl url = mime->urls().constFirst();
    if (!url.isLocalFile() || QFileInfo(url.toLocalFile()).isDir()) {
        return std::nullopt;
    }
    return url.toLocalFile();
}

}  // namespace

MainWindow::MainWindow(std::unique_ptr<app::EditDetectorViewModel> model,
                       ui::RackDialogs dialogs,
                       std::optional<QString> manual,
                       QWidget* parent)
    : QMainWindow(parent)
    , panel_(new ui::RackPanel(std::move(model), std::move(dialogs), this))
    , manual_(std::move(manual))
{
    setWindowTitle(QStringLiteral("Kestrin"));
    setCentralWidget(panel_);
    // The window is as large as the panel and its menu bar, and stays so.
    layout()->setSizeConstraint(QLayout::SetFixedSize);
    setAcceptDrops(true);

    QMenu* file = menuBar()->addMenu(tr("&File"));
    QAction* quit = file->addAction(tr("&Quit"), qApp, &QApplication::closeAllWindows);
    quit->setShortcut(QKeySequence::Quit);
    // Not every platform's theme names a Quit sequence.
    if (quit->shortcut().isEmpty()) {
        quit->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    }
    quit->setMenuRole(QAction::QuitRole);

    QMenu* help = menuBar()->addMenu(tr("&Help"));
    help->addAction(tr("Kestrin Help\u2026"), this, [this] {
        if (manual_) {
            QDesktopServices::openUrl(QUrl::fromLocalFile(*manual_));
        }
    });
}

void MainWindow::dragEnterEvent(QDragEnterEvent* event)
{
    if (droppedFile(event->mimeData()) && !panel_->model().isProcessing()) {
        event->acceptProposedAction();
    }
}

void MainWindow::dropEvent(QDropEvent* event)
{
    if (const std::optional<QString> file = droppedFile(event->mimeData())) {
        panel_->selectVideo(QFile::encodeName(*file).toStdString());
        event->acceptProposedAction();
    }
}

std::optional<QString> findManual(const QString& applicationDir,
                                  const QString& relativeToBinary,
                                  const QString& fallback)
{
    const QString installed = QDir(applicationDir).absoluteFilePath(relativeToBinary);
    for (const QString& candidate : {installed, fallback}) {
        if (!candidate.isEmpty() && QFileInfo(candidate).isFile()) {
            return QDir::cleanPath(candidate);
        }
    }
    return std::nullopt;
}

}  // namespace kestrin::gui
