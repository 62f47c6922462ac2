#include <kestrin/ui/timecode_field.hpp>
#include <kestrin/ui/timecode_key_loop.hpp>

#include <gtest/gtest.h>

#include <QApplication>
#include <QClipboard>
#include <QImage>
#include <QPushButton>
#include <QSignalSpy>
#include <QTest>
#include <QWidget>

#include <tuple>

namespace kestrin::ui {
namespace {

using namespace Qt::StringLiterals;

QColor textColour(const TimecodeField& field)
{
    return field.palette().color(QPalette::Text);
}

TEST(TimecodeField, KeystrokesEnterAtTheRight)
{
    // What is typed ("\b" is Backspace), the text shown, and how many edits changed the digits.
    const std::tuple<QString, QString, int> rows[] = {
        {u"1"_s, u"00:00:00:01"_s, 1},
        {u"12"_s, u"00:00:00:12"_s, 2},
        {u"1a"_s, u"00:00:00:01"_s, 1},
        {u"a"_s, u"00:00:00:00"_s, 0},
        {u"123456789"_s, u"23:45:67:89"_s, 9},
        {u"12\b"_s, u"00:00:00:01"_s, 3},
        {u"\b"_s, u"00:00:00:00"_s, 0},
    };
    for (const auto& [keys, shown, edits] : rows) {
        TimecodeField field(TimecodeFieldId::sessionStart, false, core::kFps25);
        const QSignalSpy spy(&field, &TimecodeField::digitsEdited);
        QTest::keyClicks(&field, keys);
        EXPECT_EQ(field.text(), shown) << keys.toStdString();
        EXPECT_EQ(spy.count(), edits) << keys.toStdString();
        if (!spy.isEmpty()) {
            EXPECT_EQ(spy.constLast().at(0).toString(), field.digits()) << keys.toStdString();
        }
    }
}

TEST(TimecodeField, PasteKeepsTheLastEightNumerals)
{
    TimecodeField field(TimecodeFieldId::videoStart, false, core::kFps30);
    const QSignalSpy spy(&field, &TimecodeField::digitsEdited);
    QGuiApplication::clipboard()->setText(u"12:34:56:78 abc 9"_s);
    QTest::keySequence(&field, QKeySequence::Paste);
    EXPECT_EQ(field.text(), u"23:45:67:89"_s);
    ASSERT_EQ(spy.count(), 1);
    EXPECT_EQ(spy.constFirst().at(0).toString(), u"23456789"_s);
}

TEST(TimecodeField, SettersShowTheOwnersStateWithoutEmitting)
{
    TimecodeField field(TimecodeFieldId::sessionStart, true, core::kFps2997);
    const QSignalSpy spy(&field, &TimecodeField::digitsEdited);
    field.setDigits(u"01000000"_s);
    EXPECT_EQ(field.text(), u"01:00:00;00"_s);
    EXPECT_EQ(field.digits(), u"01000000"_s);
    field.setDigits(u"123456789"_s);
    EXPECT_EQ(field.text(), u"23:45:67;89"_s);
    field.setDropFrame(false);
    EXPECT_EQ(field.text(), u"23:45:67:89"_s);
    EXPECT_EQ(field.digits(), u"23456789"_s);
    EXPECT_EQ(spy.count(), 0);
}

// Each keystroke is judged at once with the settings the field was made with; the owner's verdict
// (here for 25 fps, set after the field was made at 29.97) replaces it when it comes.
TEST(TimecodeField, ColourFollowsEveryKeystrokeThenTheOwnersVerdict)
{
    TimecodeField field(TimecodeFieldId::sessionStart, false, core::kFps2997);
    field.setNominalFps(core::kFps25);
    EXPECT_EQ(textColour(field), TimecodeField::kInvalidColor);
    field.setValid(true);
    EXPECT_EQ(textColour(field), TimecodeField::kValidColor);
    EXPECT_NEAR(TimecodeField::kValidColor.alphaF(), 0.7F, 0.002F);
    EXPECT_NEAR(TimecodeField::kInvalidColor.alphaF(), 0.7F, 0.002F);

    // Keys typed, and the colour after the last of them.
    const std::tuple<QString, QColor> keystrokes[] = {
        {u"2"_s, TimecodeField::kValidColor},
        {u"9"_s, TimecodeField::kValidColor},    // frame 29 exists at 29.97
        {u"9"_s, TimecodeField::kInvalidColor},  // 00:00:02:99
        {u"\b"_s, TimecodeField::kValidColor},
        {u"a"_s, TimecodeField::kValidColor},
    };
    for (const auto& [keys, colour] : keystrokes) {
        QTest::keyClicks(&field, keys);
        EXPECT_EQ(textColour(field), colour) << field.text().toStdString();
    }
    field.setValid(false);  // the owner judges 00:00:00:29 at 25 fps
    EXPECT_EQ(textColour(field), TimecodeField::kInvalidColor);
    EXPECT_FALSE(field.isValid());
}

// Two fields in a window, laid out as on the panel (3 points apart), with a button beside them.
class TimecodeFieldFocus : public testing::Test
{
protected:
    void SetUp() override
    {
        window_.setAutoFillBackground(true);
        QPalette black = window_.palette();
        black.setColor(QPalette::Window, Qt::black);
        window_.setPalette(black);
        window_.resize(260, 120);
        session_->setGeometry(20, 20, 149, 28);
        video_->setGeometry(20, 51, 149, 28);
        button_->setGeometry(190, 20, 60, 28);
        loop_.add(session_);
        loop_.add(video_);
        window_.show();
        window_.activateWindow();
        ASSERT_TRUE(QTest::qWaitForWindowActive(&window_));
    }

    // Whether the ring shows where its top (session) or bottom (video) edge runs.
    bool isRingShown(const TimecodeField* field)
    {
        const QImage shot = window_.grab().toImage();
        const QRect box = field->geometry();
        const int y = field == session_ ? box.top() - 3 : box.bottom() + 3;
        const QColor pixel = shot.pixelColor(box.center().x(), y);
        return pixel.green() > 40 && pixel.green() > pixel.red() + 20;
    }

    QWidget window_;
    TimecodeField* session_ =
        new TimecodeField(TimecodeFieldId::sessionStart, false, core::kFps25, &window_);
    TimecodeField* video_ =
        new TimecodeField(TimecodeFieldId::videoStart, false, core::kFps25, &window_);
    QPushButton* button_ = new QPushButton(u"Scan"_s, &window_);
    TimecodeKeyLoop loop_;
};

TEST_F(TimecodeFieldFocus, NeitherFieldTakesFocusByItself)
{
    EXPECT_FALSE(session_->hasFocus());
    EXPECT_FALSE(video_->hasFocus());
    QTest::keyClick(&window_, Qt::Key_Tab);
    QTest::keyClick(&window_, Qt::Key_Tab);
    EXPECT_FALSE(session_->hasFocus());
    EXPECT_FALSE(video_->hasFocus());
    EXPECT_FALSE(isRingShown(session_));
    EXPECT_FALSE(isRingShown(video_));
}

TEST_F(TimecodeFieldFocus, ClickFocusesAndTabMovesBetweenThePair)
{
    QTest::mouseClick(session_, Qt::LeftButton);
    EXPECT_TRUE(session_->hasFocus());
    EXPECT_TRUE(isRingShown(session_));
    EXPECT_FALSE(isRingShown(video_));

    QTest::keyClick(session_, Qt::Key_Tab);
    EXPECT_TRUE(video_->hasFocus());
    EXPECT_FALSE(isRingShown(session_));
    EXPECT_TRUE(isRingShown(video_));

    QTest::keyClick(video_, Qt::Key_Tab);
    EXPECT_TRUE(session_->hasFocus());
    QTest::keyClick(session_, Qt::Key_Backtab, Qt::ShiftModifier);
    EXPECT_TRUE(video_->hasFocus());
    QTest::keyClick(video_, Qt::Key_Backtab, Qt::ShiftModifier);
    EXPECT_TRUE(session_->hasFocus());

    // Typing goes to the focused field only.
    QTest::keyClicks(QApplication::focusWidget(), u"5"_s);
    EXPECT_EQ(session_->text(), u"00:00:00:05"_s);
    EXPECT_EQ(video_->text(), u"00:00:00:00"_s);

    QTest::mouseClick(button_, Qt::LeftButton);
    EXPECT_FALSE(session_->hasFocus());
    EXPECT_FALSE(isRingShown(session_));
}

}  // namespace
}  // namespace kestrin::ui
