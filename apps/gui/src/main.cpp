// kestrin: the desktop application. Puts the FFmpeg adapter under the view model and the view
// model in the rack panel's window.

#include "main_window.hpp"
#include "screenshot.hpp"

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>
#include <kestrin/ui/art.hpp>

#include <QApplication>
#include <QCommandLineParser>
#include <QFile>
#include <QFileInfo>

#include <cstdio>
#include <optional>

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

// The command line, read twice with the same options: once before Qt starts, only for --help and
// --version, which must work without a display; then on what QApplication left of it (Qt takes its
// own options, such as -platform, out first).
struct CommandLine
{
    CommandLine()
    {
        // "-platform" is one word, not the letters of eight short options.
        parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
        parser.addOptions({help, version, screenshot, scanningScreenshot});
    }

    QCommandLineParser parser;
    QCommandLineOption help{{QStringLiteral("h"), QStringLiteral("help")}};
    QCommandLineOption version{QStringLiteral("version")};
    QCommandLineOption screenshot{QStringLiteral("screenshot"), {}, QStringLiteral("PATH")};
    QCommandLineOption scanningScreenshot{
        QStringLiteral("screenshot-scanning"), {}, QStringLiteral("PATH")};
};

struct Options
{
    std::optional<QString> video;
    std::optional<QString> screenshot;
    std::optional<QString> scanningScreenshot;
};

std::optional<QString> valueOf(const QCommandLineParser& parser, const QCommandLineOption& option)
{
    return parser.isSet(option) ? std::optional(parser.value(option)) : std::nullopt;
}

// Parses what QApplication left of the command line (program name first); prints the complaint and
// returns absent for a command line it cannot use.
std::optional<Options> parseOptions(const QStringList& args)
{
    CommandLine line;
    if (!line.parser.parse(args)) {
        std::fprintf(stderr, "kestrin: %s\n", qPrintable(line.parser.errorText()));
        return std::nullopt;
    }
    const QStringList videos = line.parser.positionalArguments();
    if (videos.size() > 1) {
        std::fputs("kestrin: only one video at a time\n", stderr);
        return std::nullopt;
    }
    Options options{
        .video = videos.isEmpty() ? std::nullopt : std::optional(videos.front()),
        .screenshot = valueOf(line.parser, line.screenshot),
        .scanningScreenshot = valueOf(line.parser, line.scanningScreenshot),
    };
    if ((options.screenshot || options.scanningScreenshot) && !options.video) {
        std::fputs("kestrin: the screenshots need a video\n", stderr);
        return std::nullopt;
    }
    return options;
}

}  // namespace

int main(int argc, char** argv)
{
    // Answered before Qt starts, so that they work without a display. Anything else wrong with the
    // command line is reported once Qt has taken its own options out.
    QStringList rawArgs;
    for (int i = 0; i < argc; ++i) {
        rawArgs.append(QString::fromLocal8Bit(argv[i]));
    }
    CommandLine early;
    early.parser.parse(rawArgs);
    if (early.parser.isSet(early.help)) {
        std::fputs(kUsage, stdout);
        return 0;
    }
    if (early.parser.isSet(early.version)) {
        std::puts("kestrin " KESTRIN_VERSION);
        return 0;
    }

    const QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Kestrin"));
    QApplication::setApplicationVersion(QStringLiteral(KESTRIN_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("kestrin"));
    QApplication::setWindowIcon(ui::applicationIcon());

    const std::optional<Options> options = parseOptions(QApplication::arguments());
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
