#include <kestrin/ui/art.hpp>

#include <gtest/gtest.h>

#include <QImage>

#include <cmath>
#include <tuple>

namespace kestrin::ui {
namespace {

using namespace Qt::StringLiterals;

TEST(Art, EveryImageLoadsAtTwiceItsSize)
{
    const QStringList names = artNames();
    EXPECT_EQ(names.size(), 39);
    for (const QString& name : names) {
        const QPixmap pixmap = artPixmap(name);
        ASSERT_FALSE(pixmap.isNull()) << name.toStdString();
        const QSizeF points = artSize(name);
        const QSize pixels(static_cast<int>(std::lround(points.width() * 2)),
                           static_cast<int>(std::lround(points.height() * 2)));
        EXPECT_EQ(pixmap.size(), pixels) << name.toStdString();
        EXPECT_EQ(pixmap.devicePixelRatio(), 2.0) << name.toStdString();
    }
    EXPECT_TRUE(artPixmap(u"backplate"_s).isNull());
    EXPECT_TRUE(artSize(u"backplate"_s).isEmpty());
}

TEST(Art, LitImagesDifferFromUnlitOnes)
{
    for (const QString& name : artNames()) {
        if (!name.endsWith(u"_ON"_s) && name != u"led_on"_s) {
            continue;
        }
        QString unlit = name;
        unlit.replace(u"_ON"_s, u"_OFF"_s).replace(u"led_on"_s, u"led_off"_s);
        EXPECT_NE(artPixmap(name).toImage(), artPixmap(unlit).toImage()) << name.toStdString();
    }
}

TEST(Art, ApplicationIconHasItsFullSize)
{
    EXPECT_TRUE(applicationIcon().availableSizes().contains(QSize(256, 256)));
}

}  // namespace
}  // namespace kestrin::ui
