// The rack panel driven as a user drives it, with a real view model over the FFmpeg adapter and
// the test clips: buttons clicked, timecodes typed, the dialogs answered by the test.

#include <kestrin/media_ffmpeg/ffmpeg_asset_opener.hpp>
#include <kestrin/ui/rack_panel.hpp>

#include <gtest/gtest.h>

#include <QMessageBox>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <cmath>
#include <fstream>
#include <iterator>
#include <limits>
#include <tuple>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace kestrin::ui {
namespace {

using namespace Qt::StringLiterals;

constexpr int kTimeoutMs = 300000;

std::filesystem::path clipPath(const char* name)
{
    return std::filesystem::path(KESTRIN_CLIPS_DIR) / name;
}

std::vector<std::uint8_t> readFile(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class PanelOnClips : public testing::Test
{
protected:
    PanelOnClips()
        : panel_(std::make_unique<app::EditDetectorViewModel>(
                     std::make_shared<media_ffmpeg::FFmpegAssetOpener>(), core::Log::discard()),
                 RackDialogs{
                     [this](QWidget*) { return video_; },
                     [this](QWidget*, const std::filesystem::path& proposed) {
                         proposed_ = proposed;
                         return destination_;
                     },
                 })
    {}

    app::EditDetectorViewModel& model() { return panel_.model(); }

    void click(RackButtonId id)
    {
        RackButton* button = panel_.button(id);
        QTest::mouseClick(button, Qt::LeftButton, {}, button->rect().center());
    }

    // The buttons that are lit, or enabled, by their image names' stems.
    [[nodiscard]] QString buttons(bool (*holds)(const RackButton&)) const
    {
        QStringList names;
        for (int i = 0; i <= static_cast<int>(RackButtonId::NDF); ++i) {
            const RackButton& button = *panel_.button(static_cast<RackButtonId>(i));
            if (holds(button)) {
                names << button.accessibleName();
            }
        }
        return names.join(u' ');
    }
    [[nodiscard]] QString lit() const
    {
        return buttons([](const RackButton& button) { return button.isLit(); });
    }
    [[nodiscard]] QString enabled() const
    {
        return buttons([](const RackButton& button) { return button.isEnabled(); });
    }

    void loadClip(const char* name)
    {
        video_ = clipPath(name);
        click(RackButtonId::selectVideo);
        ASSERT_TRUE(QTest::qWaitFor(
            [&] {
                return panel_.videoLabel()->text() == QString::fromLatin1(name)
                       && panel_.button(RackButtonId::fps25)->isLit();
            },
            kTimeoutMs));
    }

    std::optional<std::filesystem::path> video_;
    std::optional<std::filesystem::path> destination_;
    std::optional<std::filesystem::path> proposed_;
    RackPanel panel_;
};

TEST_F(PanelOnClips, ButtonsFollowTheRateAndTheChoices)
{
    EXPECT_EQ(panel_.videoLabel()->text(), u"No video loaded"_s);
    EXPECT_EQ(lit(), u"SelectVideo fps2997 fpsDF"_s);
    EXPECT_EQ(enabled(),
              u"SelectVideo fps23976 fps24 fps25 fps2997 fps30 fps50 fps5994 fps60 fpsDF fpsNDF"_s);
    EXPECT_EQ(panel_.sessionStartField()->text(), u"00:00:00;00"_s);

    click(RackButtonId::NDF);
    EXPECT_EQ(lit(), u"SelectVideo fps2997 fpsNDF"_s);
    EXPECT_EQ(panel_.sessionStartField()->text(), u"00:00:00:00"_s);

    // Disabled, or cancelled: nothing happens.
    click(RackButtonId::startScan);
    click(RackButtonId::selectVideo);
    EXPECT_EQ(model().errorMessage(), std::nullopt);
    EXPECT_EQ(model().selectedURL(), std::nullopt);
    EXPECT_EQ(model().nominalFPS(), core::kFps2997);

    click(RackButtonId::fps25);
    click(RackButtonId::DF);
    EXPECT_EQ(model().userPrefersDropFrame(), false);
    EXPECT_EQ(lit(), u"SelectVideo fps25"_s);
    EXPECT_EQ(enabled(), u"SelectVideo fps23976 fps24 fps25 fps2997 fps30 fps50 fps5994 fps60"_s);
    EXPECT_EQ(panel_.button(RackButtonId::DF)->accessibleDescription(), u"Disabled"_s);

    // A field judges each keystroke at once by the rate it was made with (29.97 drop-frame), and
    // keeps that colour until the view model stores its own verdict, at 25, after the typing.
    TimecodeField& field = *panel_.sessionStartField();
    QTest::keyClicks(&field, u"29"_s);
    EXPECT_TRUE(field.isValid());
    ASSERT_TRUE(QTest::qWaitFor([&] { return !field.isValid(); }, kTimeoutMs));
    QTest::keyClick(&field, Qt::Key_Backspace);
    EXPECT_EQ(field.digits(), u"00000002"_s);
    EXPECT_TRUE(field.isValid());
}

TEST_F(PanelOnClips, ScansAndExportsWhatTheCommandLineToolWrites)
{
    loadClip("h264-cuts.mp4");
    QTest::keyClicks(panel_.sessionStartField(), u"00595800"_s);
    QTest::keyClicks(panel_.videoStartField(), u"01000000"_s);
    ASSERT_TRUE(QTest::qWaitFor([&] { return panel_.button(RackButtonId::startScan)->isEnabled(); },
                                kTimeoutMs));

    click(RackButtonId::startScan);
    EXPECT_EQ(lit(), u"Cancel fps25"_s);
    EXPECT_EQ(enabled(), u"Cancel"_s);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !model().isProcessing(); }, kTimeoutMs));
    ASSERT_EQ(model().errorMessage(), std::nullopt);
    EXPECT_EQ(model().markers().size(), 9U);
    EXPECT_EQ(panel_.progressBar()->litCount(), 32);
    EXPECT_EQ(panel_.progressBar()->accessibleName(), u"100 percent"_s);
    EXPECT_TRUE(panel_.scanLight()->isOn());
    EXPECT_FALSE(panel_.keyframeLamp()->isOn());
    EXPECT_EQ(lit(), u"SelectVideo StartScan ExportMIDI fps25"_s);

    const QTemporaryDir scratch;
    ASSERT_TRUE(scratch.isValid());
    const std::filesystem::path saved = scratch.filePath(u"panel.mid"_s).toStdString();
    const std::filesystem::path expected = scratch.filePath(u"cli.mid"_s).toStdString();
    destination_ = saved;
    click(RackButtonId::exportMIDI);
    EXPECT_EQ(proposed_, clipPath("h264-cuts_Markers.mid"));
    EXPECT_FALSE(panel_.isExporting());
    ASSERT_EQ(QProcess::execute(KESTRIN_SCAN_BINARY,
                                {u"-q"_s,
                                 u"--session-start"_s,
                                 u"00:59:58:00"_s,
                                 u"--video-start"_s,
                                 u"01:00:00:00"_s,
                                 u"-o"_s,
                                 QString::fromStdString(expected.string()),
                                 QString::fromStdString(clipPath("h264-cuts.mp4").string())}),
              0);
    EXPECT_EQ(readFile(saved), readFile(expected));
    ASSERT_TRUE(panel_.midiDocument().has_value());
    EXPECT_EQ(panel_.midiDocument()->data, readFile(expected));

    // The command-line tool's writer: through a link (here a dangling one, to the file removed
    // meanwhile), never onto a folder or a FIFO, and a failure says why.
    const std::filesystem::path dir = saved.parent_path();
    std::filesystem::remove(saved);
    std::filesystem::create_symlink("panel.mid", dir / "link.mid");
    std::filesystem::create_directory(dir / "folder.mid");
    ASSERT_EQ(::mkfifo((dir / "fifo.mid").c_str(), 0644), 0);
    // Held open so that a writer that wrongly opened the FIFO would not block.
    const int fifoReader = ::open((dir / "fifo.mid").c_str(), O_RDONLY | O_NONBLOCK);
    const std::pair<const char*, QString> rows[] = {
        {"link.mid", u""_s},
        {"folder.mid", u"it is a directory"_s},
        {"fifo.mid", u"it is a FIFO, not a regular file"_s},
        {"missing/panel.mid", u"No such file or directory"_s},
    };
    for (const auto& [name, alert] : rows) {
        destination_ = dir / name;
        click(RackButtonId::exportMIDI);
        if (alert.isEmpty()) {
            EXPECT_EQ(panel_.errorAlert(), nullptr) << name;
            continue;
        }
        ASSERT_NE(panel_.errorAlert(), nullptr) << name;
        EXPECT_TRUE(panel_.errorAlert()->text().contains(alert))
            << panel_.errorAlert()->text().toStdString();
        panel_.errorAlert()->button(QMessageBox::Ok)->click();
        EXPECT_EQ(model().errorMessage(), std::nullopt);
    }
    ::close(fifoReader);
    EXPECT_TRUE(std::filesystem::is_symlink(dir / "link.mid"));
    EXPECT_EQ(readFile(saved), readFile(expected));
    EXPECT_TRUE(std::filesystem::is_fifo(dir / "fifo.mid"));

    // No marker is placed before the session's start, where the file has no place for it.
    model().setSessionStartDigits("01000001");
    ASSERT_TRUE(QTest::qWaitFor(
        [&] { return panel_.button(RackButtonId::exportMIDI)->isEnabled(); }, kTimeoutMs));
    click(RackButtonId::exportMIDI);
    ASSERT_NE(panel_.errorAlert(), nullptr);
    EXPECT_EQ(panel_.errorAlert()->text(), u"Video Start is before Session Start."_s);
    panel_.errorAlert()->button(QMessageBox::Ok)->click();
    model().setSessionStartDigits("00595800");

    // Export before the view model has judged a just-typed timecode (99 frames) invalid.
    QTest::keyClicks(panel_.sessionStartField(), u"99"_s);
    click(RackButtonId::exportMIDI);
    ASSERT_NE(panel_.errorAlert(), nullptr);
    EXPECT_EQ(panel_.errorAlert()->windowTitle(), u"Error"_s);
    EXPECT_EQ(panel_.errorAlert()->text(),
              u"Invalid timecode. Please check Session Start and Video Start."_s);
    QTest::keyClick(panel_.errorAlert(), Qt::Key_Escape);
    EXPECT_EQ(model().errorMessage(), std::nullopt);
    EXPECT_EQ(panel_.errorAlert(), nullptr);
}

// A file whose data ends halfway: the markers of the half read, a warning that says so, and a
// bar that stops where the data did.
TEST_F(PanelOnClips, ScanOfADamagedFileKeepsItsMarkersAndWarns)
{
    loadClip("truncated.mkv");
    ASSERT_TRUE(QTest::qWaitFor([&] { return panel_.button(RackButtonId::startScan)->isEnabled(); },
                                kTimeoutMs));
    click(RackButtonId::startScan);
    ASSERT_TRUE(QTest::qWaitFor([&] { return !model().isProcessing(); }, kTimeoutMs));
    EXPECT_EQ(model().errorMessage(), std::nullopt);
    EXPECT_FALSE(model().markers().empty());
    EXPECT_EQ(lit(), u"SelectVideo StartScan ExportMIDI fps25"_s);
    const int lit = panel_.progressBar()->litCount();
    EXPECT_GT(lit, 8);
    EXPECT_LT(lit, 24);

    QMessageBox* alert = panel_.warningAlert();
    ASSERT_NE(alert, nullptr);
    EXPECT_EQ(alert->windowTitle(), u"Scan Incomplete"_s);
    EXPECT_TRUE(alert->text().startsWith(
        u"The scan could not read the whole video. Only 01:00:00:00-01:00:0"_s))
        << alert->text().toStdString();
    EXPECT_TRUE(alert->text().endsWith(
        u" of 01:00:00:00-01:00:13:06 could be read; cuts may be missing. The markers are those "
        u"of what could be read."_s))
        << alert->text().toStdString();
    alert->done(QMessageBox::Ok);
    EXPECT_EQ(model().scanWarning(), std::nullopt);
    EXPECT_FALSE(model().markers().empty());
}

TEST_F(PanelOnClips, CancelPutsTheLightsOut)
{
    // A video set on the view model directly is loaded too.
    model().setSelectedURL(clipPath("h264-cuts.mp4"));
    ASSERT_TRUE(
        QTest::qWaitFor([&] { return panel_.button(RackButtonId::fps25)->isLit(); }, kTimeoutMs));
    click(RackButtonId::startScan);
    ASSERT_TRUE(model().isProcessing());
    click(RackButtonId::acancel);
    EXPECT_EQ(panel_.progressBar()->litCount(), 0);
    EXPECT_FALSE(panel_.scanLight()->isOn());
    EXPECT_FALSE(panel_.keyframeLamp()->isOn());
    EXPECT_EQ(lit(), u"SelectVideo StartScan fps25"_s);
    EXPECT_EQ(panel_.errorAlert(), nullptr);

    // The fixture then destroys the panel in mid-scan, as closing the window does.
    click(RackButtonId::startScan);
    ASSERT_TRUE(model().isProcessing());
}

TEST(ProgressLedBar, LightsTheFractionRoundedDown)
{
    const std::tuple<double, int, QString> rows[] = {
        {0.0, 0, u"0 percent"_s},
        {0.5, 16, u"50 percent"_s},
        {0.999, 31, u"99 percent"_s},
        {1.0, 32, u"100 percent"_s},
        {1.5, 32, u"150 percent"_s},
        {-0.25, 0, u"-25 percent"_s},
        {std::numeric_limits<double>::quiet_NaN(), 0, u"0 percent"_s},
    };
    ProgressLedBar bar(QPointF(), 32, QSizeF(11, 37), 2, nullptr);
    for (const auto& [progress, lit, name] : rows) {
        bar.setProgress(progress);
        EXPECT_EQ(bar.litCount(), lit) << progress;
        EXPECT_EQ(bar.accessibleName(), name) << progress;
    }
}

}  // namespace
}  // namespace kestrin::ui
