#include <QDateTime>
#include <QFile>
#include <QTemporaryDir>
#include <QTimeZone>
#include <gtest/gtest.h>

#include "platform/PropertyList.h"

using platform::OrderedDict;
namespace plist = platform::plist;

namespace {

QVariantMap everyType() {
    QByteArray bytes;
    for (int i = 0; i < 256; ++i) bytes.append(char(i));
    return {
        {"string", QStringLiteral("Zephyr <&> \"quoted\" ünïcode")},
        {"empty", QString("")},
        {"integer", qint64(-402653147)},
        {"big", qint64(5492165909)},
        {"unsigned", quint64(18446744073709551615ULL)},
        {"real", 0.1},
        {"yes", true},
        {"no", false},
        {"date", QDateTime(QDate(2009, 2, 13), QTime(23, 31, 30), QTimeZone::utc())},
        {"data", bytes},
        {"array", QVariantList{1, QStringLiteral("two"), QVariantList{}, QVariantMap{}}},
        {"dict", QVariantMap{{"nested", QVariantMap{{"deep", qint64(3)}}}}},
    };
}

TEST(PropertyList, EveryTypeRoundTripsExactly) {
    const QVariantMap original = everyType();
    QString error;
    const auto back = plist::fromXml(plist::toXml(original), &error);
    ASSERT_TRUE(back) << error.toStdString();
    const QVariantMap map = back->toMap();
    EXPECT_EQ(map.keys(), original.keys());
    EXPECT_EQ(map["string"].toString(), original["string"].toString());
    EXPECT_EQ(map["empty"].toString(), QString(""));
    EXPECT_EQ(map["integer"].toLongLong(), -402653147);
    EXPECT_EQ(map["big"].toLongLong(), 5492165909LL);
    EXPECT_EQ(map["unsigned"].toULongLong(), 18446744073709551615ULL);
    EXPECT_EQ(map["real"].toDouble(), 0.1);
    EXPECT_EQ(map["yes"].typeId(), QMetaType::Bool);
    EXPECT_TRUE(map["yes"].toBool());
    EXPECT_FALSE(map["no"].toBool());
    EXPECT_EQ(map["date"].toDateTime(), original["date"].toDateTime());
    EXPECT_EQ(map["data"].toByteArray(), original["data"].toByteArray());
    EXPECT_EQ(map["array"].toList().size(), 4);
    EXPECT_EQ(map["array"].toList()[1].toString(), QStringLiteral("two"));
    EXPECT_EQ(map["dict"].toMap()["nested"].toMap()["deep"].toLongLong(), 3);
}

TEST(PropertyList, DatesKeepWholeSecondsInUtc) {
    const QDateTime withMillis(QDate(2026, 11, 23), QTime(1, 52, 7, 999), QTimeZone(3600));
    const QByteArray xml = plist::toXml(withMillis);
    EXPECT_TRUE(xml.contains("<date>2026-11-23T00:52:07Z</date>")) << xml.toStdString();
}

TEST(PropertyList, OrderedDictKeepsTheGivenOrder) {
    OrderedDict details;
    details.insert("size", QStringLiteral("1 KB"));
    details.insert("sizeInBytes", quint64(1024));
    details.insert("isDirectory", false);
    const QByteArray xml = plist::toXml(QVariant::fromValue(details));
    const qsizetype a = xml.indexOf("<key>size</key>"), b = xml.indexOf("<key>sizeInBytes</key>"),
                    c = xml.indexOf("<key>isDirectory</key>");
    EXPECT_TRUE(a >= 0 && a < b && b < c) << xml.toStdString();

    const auto back = plist::fromXml(xml, nullptr, /*keepOrder=*/true);
    ASSERT_TRUE(back);
    const auto items = back->value<OrderedDict>().items();
    ASSERT_EQ(items.size(), 3);
    EXPECT_EQ(items[0].first, "size");
    EXPECT_EQ(items[2].first, "isDirectory");
}

TEST(PropertyList, MalformedInputIsRejectedWithTheLine) {
    const QByteArray xml = plist::toXml(everyType());
    QString error;
    EXPECT_FALSE(plist::fromXml(xml.left(xml.size() / 2), &error));
    EXPECT_TRUE(error.startsWith("line ")) << error.toStdString();

    const QList<QByteArray> bad = {
        "",
        "not xml at all",
        "<plist><dict><key>a</key></dict></plist>",
        "<plist><dict><string>x</string></dict></plist>",
        "<plist><integer>12x</integer></plist>",
        "<plist><date>yesterday</date></plist>",
        "<plist><data>***</data></plist>",
        "<plist><frob/></plist>",
        "<plist><string>a</string><string>b</string></plist>",
        "<html><string>a</string></html>",
        QByteArray("<plist>") + QByteArray(2000, 'x').replace("x", "<array>") + "</plist>",
    };
    for (const QByteArray& input : bad) {
        error.clear();
        EXPECT_FALSE(plist::fromXml(input, &error)) << input.left(60).toStdString();
        EXPECT_FALSE(error.isEmpty());
    }
    error.clear();
    EXPECT_FALSE(plist::fromXml("<plist>\n<dict>\n<key>a</key>\n<integer>1</integer>\n<bogus/>\n</dict></plist>", &error));
    EXPECT_TRUE(error.startsWith("line 5")) << error.toStdString();
}

TEST(PropertyList, WriteFileIsAtomicAndReadable) {
    QTemporaryDir dir;
    const QString path = dir.filePath("values.plist");
    ASSERT_TRUE(plist::writeFile(path, everyType()));
    ASSERT_TRUE(plist::writeFile(path, QVariantMap{{"k", 1}}));  // replaces whole
    QString error;
    const auto back = plist::readFile(path, &error);
    ASSERT_TRUE(back) << error.toStdString();
    EXPECT_EQ(back->toMap(), (QVariantMap{{"k", qint64(1)}}));
    EXPECT_EQ(QDir(dir.path()).entryList(QDir::Files | QDir::Hidden), QStringList{"values.plist"});

    EXPECT_FALSE(plist::writeFile(dir.filePath("missing/folder/x.plist"), 1, &error));
    EXPECT_FALSE(plist::readFile(dir.filePath("absent.plist"), &error));
}

}  // namespace
