#include "main_window.hpp"

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>

#include <gtest/gtest.h>

#include <QApplication>
#include <QDir>
#include <QDropEvent>
#include <QFile>
#include <QMenu>
#include <QMenuBar>
#include <QMimeData>
#include <QTemporaryDir>
#include <QUrl>

namespace kestrin::gui {
namespace {

using namespace Qt::StringLiterals;

std::unique_ptr<app::EditDetectorViewModel> makeModel()
{
    return std::make_unique<app::EditDetectorViewModel>(
        std::make_shared<media_ffmpeg::FFmpegAssetOpener>(), core::Log::discard());
}

QStringList actionTexts(const QList<QAction*>& actions)
{
    QStringList texts;
    for (const QAction* action : actions) {
        texts << QString(action->text()).remove(u'&');
    }
    return texts;
}

TEST(MainWindow, HasTheFixedPanelAndTrimmedMenus)
{
    MainWindow window(makeModel(), {}, std::nullopt);
    window.show();
    EXPECT_EQ(window.windowTitle(), u"Kestrin"_s);
    EXPECT_EQ(window.panel().size(), QSize(840, 420));
    const QSize size = window.size();
    window.resize(size + QSize(200, 100));
    EXPECT_EQ(window.size(), size);
    EXPECT_EQ(window.minimumSize(), window.maximumSize());

    const QList<QAction*> menus = window.menuBar()->actions();
    ASSERT_EQ(actionTexts(menus), (QStringList{u"File"_s, u"Markers"_s, u"Help"_s}));
    const QList<QAction*> fileItems = menus[0]->menu()->actions();
    ASSERT_EQ(actionTexts(fileItems), QStringList{u"Quit"_s});
    EXPECT_EQ(fileItems[0]->shortcut(), QKeySequence(u"Ctrl+Q"_s));
    EXPECT_EQ(actionTexts(menus[2]->menu()->actions()), QStringList{u"Kestrin Help\u2026"_s});
}

// The Markers menu sets the view model's marker name, and shows the one in force.
TEST(MainWindow, MarkersMenuChoosesHowCutsAreNamed)
{
    MainWindow window(makeModel(), {}, std::nullopt);
    app::EditDetectorViewModel& model = window.panel().model();
    const QList<QAction*> items = window.menuBar()->actions()[1]->menu()->actions();
    ASSERT_EQ(actionTexts(items),
              (QStringList{u"Name Cuts Cut 1, Cut 2, \u2026"_s,
                           u"Name Cuts by Timecode"_s,
                           u"Leave Cut Names Blank"_s}));
    EXPECT_TRUE(items[0]->isChecked());
    items[2]->trigger();
    EXPECT_EQ(model.markerName(), " ");
    EXPECT_FALSE(items[0]->isChecked());
    items[1]->trigger();
    EXPECT_EQ(model.markerName(), "{tc}");
    model.setMarkerName(std::string(app::kDefaultMarkerName));
    EXPECT_TRUE(items[0]->isChecked());
    EXPECT_FALSE(items[1]->isChecked());
}

TEST(MainWindow, TakesADroppedFileAsTheVideo)
{
    MainWindow window(makeModel(), {}, std::nullopt);
    const QTemporaryDir scratch;
    const QString video = scratch.filePath(u"Reel 3.mov"_s);
    QMimeData mime;
    mime.setUrls({QUrl::fromLocalFile(video)});
    const QPoint at(420, 210);
    QDragEnterEvent enter(at, Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&window, &enter);
    ASSERT_TRUE(enter.isAccepted());
    QDropEvent drop(at, Qt::CopyAction, &mime, Qt::LeftButton, Qt::NoModifier);
    QApplication::sendEvent(&window, &drop);
    EXPECT_EQ(window.panel().model().selectedURL(), std::filesystem::path(video.toStdString()));
}

TEST(FindManual, PrefersTheInstalledCopy)
{
    const QTemporaryDir prefix;
    ASSERT_TRUE(QDir(prefix.path()).mkpath(u"bin"_s));
    ASSERT_TRUE(QDir(prefix.path()).mkpath(u"share/doc/kestrin"_s));
    const QString installed = prefix.filePath(u"share/doc/kestrin/manual.html"_s);
    const QString source = prefix.filePath(u"source.html"_s);
    const QString bin = prefix.filePath(u"bin"_s);
    const QString relative = u"../share/doc/kestrin/manual.html"_s;
    EXPECT_EQ(findManual(bin, relative, source), std::nullopt);
    ASSERT_TRUE(QFile(source).open(QIODevice::WriteOnly));
    EXPECT_EQ(findManual(bin, relative, source), source);
    ASSERT_TRUE(QFile(installed).open(QIODevice::WriteOnly));
    EXPECT_EQ(findManual(bin, relative, source), installed);
}

}  // namespace
}  // namespace kestrin::gui
