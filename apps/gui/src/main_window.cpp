#include "main_window.hpp"

#include <QAction>
#include <QActionGroup>
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

    addMarkerMenu();

    QMenu* help = menuBar()->addMenu(tr("&Help"));
    help->addAction(tr("Kestrin Help\u2026"), this, [this] {
        if (manual_) {
            QDesktopServices::openUrl(QUrl::fromLocalFile(*manual_));
        }
    });
}

void MainWindow::addMarkerMenu()
{
    // How the cut markers of the next export are named; the view model holds the choice.
    struct Choice
    {
        QString text;
        std::string pattern;
        QString tip;
    };
    const Choice choices[] = {
        {tr("Name Cuts &Cut 1, Cut 2, \u2026"), std::string(app::kDefaultMarkerName), {}},
        {tr("Name Cuts by &Timecode"),
         "{tc}",
         tr("Each cut is named by its timecode on the session's timeline.")},
        {tr("Leave Cut Names &Blank"),
         " ",
         tr("Every cut is named with a single space. Ardour drops markers with blank names.")},
    };
    QMenu* markers = menuBar()->addMenu(tr("&Markers"));
    markers->setToolTipsVisible(true);
    auto* group = new QActionGroup(markers);
    app::EditDetectorViewModel& model = panel_->model();
    for (const Choice& choice : choices) {
        QAction* action = markers->addAction(choice.text);
        action->setCheckable(true);
        action->setToolTip(choice.tip.isEmpty() ? action->text().remove(u'&') : choice.tip);
        action->setChecked(model.markerName() == choice.pattern);
        group->addAction(action);
        connect(action, &QAction::triggered, this, [&model, pattern = choice.pattern] {
            model.setMarkerName(pattern);
        });
        connect(&model,
                &app::EditDetectorViewModel::markerNameChanged,
                action,
                [action, pattern = choice.pattern](const std::string& current) {
                    action->setChecked(current == pattern);
                });
    }
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
