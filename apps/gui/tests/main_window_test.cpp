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
    ASSERT_EQ(actionTexts(menus), (QStringList{u"File"_s, u"Help"_s}));
    const QList<QAction*> fileItems = menus[0]->menu()->actions();
    ASSERT_EQ(actionTexts(fileItems), QStringList{u"Quit"_s});
    EXPECT_EQ(fileItems[0]->shortcut(), QKeySequence(u"Ctrl+Q"_s));
    EXPECT_EQ(actionTexts(menus[1]->menu()->actions()), QStringList{u"Kestrin Help\u2026"_s});
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
