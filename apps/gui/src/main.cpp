// kestrin: the desktop application. Puts the FFmpeg adapter under the view model and the view
// model in the rack panel's window.

#include "main_window.hpp"
#include "screenshot.hpp"

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>
#include <kestrin/ui/art.hpp>

#include <QApplication>
#include <QFile>
#include <QFileInfo>

#include <cstdio>
#include <string_view>

#ifndef KESTRIN_VERSION
#error "KESTRIN_VERSION must be defined by the build"
#endif

namespace {

using namespace kestrin;

constexpr const char* kUsage = R"(Usage: kestrin [VIDEO]

Finds the picture cuts in a video and exports them as markers in a Standard MIDI File.
Opens the Kestrin window; with VIDEO, that video is selected at start.

Options:
  -h, --help                  show this text and exit
      --version               show the version and exit

For the documentation's pictures:
      --screenshot PATH       save a picture of the window once VIDEO is loaded, then quit
      --screenshot-scanning PATH
                              start a scan of VIDEO, save a picture of the window while it runs,
                              then cancel it and quit

Qt's own options (-platform, -style, ...) are accepted too.
)";

struct Options
{
    std::optional<QString> video;
    std::optional<QString> screenshot;
    std::optional<QString> scanningScreenshot;
};

// Parses what QApplication left of the command line; prints the complaint and returns absent for
// a command line it cannot use.
std::optional<Options> parseOptions(const QStringList& args)
{
    Options options;
    bool isAfterDashes = false;
    for (qsizetype i = 0; i < args.size(); ++i) {
        const QString& arg = args[i];
        if (!isAfterDashes && (arg == u"--screenshot" || arg == u"--screenshot-scanning")) {
            if (i + 1 == args.size()) {
                std::fprintf(stderr, "kestrin: %s needs a file name\n", qPrintable(arg));
                return std::nullopt;
            }
            (arg == u"--screenshot" ? options.screenshot : options.scanningScreenshot) = args[++i];
        } else if (!isAfterDashes && arg == u"--") {
            isAfterDashes = true;
        } else if (!isAfterDashes && arg.startsWith(u'-') && arg != u"-") {
            std::fprintf(stderr, "kestrin: unknown option %s\n", qPrintable(arg));
            return std::nullopt;
        } else if (!options.video) {
            options.video = arg;
        } else {
            std::fputs("kestrin: only one video at a time\n", stderr);
            return std::nullopt;
        }
    }
    if ((options.screenshot || options.scanningScreenshot) && !options.video) {
        std::fputs("kestrin: the screenshots need a video\n", stderr);
        return std::nullopt;
    }
    return options;
}

}  // namespace

int main(int argc, char** argv)
{
    // Answered before Qt starts, so that they work without a display.
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        if (arg == "--") {
            break;
        }
        if (arg == "-h" || arg == "--help") {
            std::fputs(kUsage, stdout);
            return 0;
        }
        if (arg == "--version") {
            std::puts("kestrin " KESTRIN_VERSION);
            return 0;
        }
    }

    const QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Kestrin"));
    QApplication::setApplicationVersion(QStringLiteral(KESTRIN_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("kestrin"));
    QApplication::setWindowIcon(ui::applicationIcon());

    const std::optional<Options> options = parseOptions(QApplication::arguments().mid(1));
    if (!options) {
        std::fputs("Try 'kestrin --help'.\n", stderr);
        return 2;
    }

    gui::MainWindow window(std::make_unique<app::EditDetectorViewModel>(
                               std::make_shared<media_ffmpeg::FFmpegAssetOpener>(), core::Log()),
                           ui::fileDialogs(),
                           gui::findManual(QApplication::applicationDirPath(),
                                           QStringLiteral(KESTRIN_MANUAL_FROM_BINARY),
                                           QStringLiteral(KESTRIN_SOURCE_MANUAL)));
    window.show();
    if (options->video) {
        const QString video = QFileInfo(*options->video).absoluteFilePath();
        window.panel().selectVideo(QFile::encodeName(video).toStdString());
    }
    if (options->screenshot || options->scanningScreenshot) {
        new gui::ScreenshotDriver(window, options->screenshot, options->scanningScreenshot);
    }
    // Closing the window ends the loop; destroying the window then stops a running scan.
    return QApplication::exec();
}
