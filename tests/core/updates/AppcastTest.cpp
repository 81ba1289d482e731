#include "core/updates/Appcast.h"
#include "core/updates/VersionComparison.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

const QByteArray kSignature = QByteArray(64, '\x07').toBase64();

QByteArray feed(const QByteArray& items) {
    return R"(<?xml version="1.0" encoding="utf-8"?>
<rss version="2.0" xmlns:u="http://example.invalid/update-namespace">
  <channel><title>Parlune</title>)" +
           items + "</channel></rss>";
}

QByteArray item(const QByteArray& version, const QByteArray& enclosureExtras = {},
                const QByteArray& signature = kSignature) {
    return "<item><title>Parlune " + version + "</title><u:version>" + version +
           "</u:version><u:shortVersionString>" + version +
           "</u:shortVersionString><u:releaseNotesLink>https://parlune.example/notes/" + version +
           "</u:releaseNotesLink><enclosure url=\"https://parlune.example/parlune-" + version +
           ".tar.gz\" length=\"1234\" type=\"application/octet-stream\" u:edSignature=\"" + signature +
           "\" " + enclosureExtras + "/></item>";
}

TEST(AppcastTest, ReadsItemsWhateverPrefixTheFeedUses) {
    const Appcast::Result result = Appcast::parse(feed(item("0.2.0") + item("0.3.0")));
    ASSERT_EQ(result.problem, QString());
    ASSERT_EQ(result.items.size(), 2);
    const AppcastItem& second = result.items[1];
    EXPECT_EQ(second.title, QStringLiteral("Parlune 0.3.0"));
    EXPECT_EQ(second.version, QStringLiteral("0.3.0"));
    EXPECT_EQ(second.shortVersion, QStringLiteral("0.3.0"));
    EXPECT_EQ(second.releaseNotesUrl, QUrl(QStringLiteral("https://parlune.example/notes/0.3.0")));
    EXPECT_EQ(second.enclosureUrl, QUrl(QStringLiteral("https://parlune.example/parlune-0.3.0.tar.gz")));
    EXPECT_EQ(second.enclosureLength, 1234);
    EXPECT_EQ(second.edSignature, QByteArray(64, '\x07'));
}

TEST(AppcastTest, VersionsOnTheEnclosureServeOlderFeeds) {
    const QByteArray old =
        R"(<item><enclosure url="https://parlune.example/p.tar.gz" length="9" u:version="41" )"
        R"(u:shortVersionString="1.4" u:edSignature=")" +
        kSignature + R"("/></item>)";
    const Appcast::Result result = Appcast::parse(feed(old));
    ASSERT_EQ(result.items.size(), 1);
    EXPECT_EQ(result.items[0].version, QStringLiteral("41"));
    EXPECT_EQ(result.items[0].shortVersion, QStringLiteral("1.4"));
}

TEST(AppcastTest, LeavesOutItemsThatCouldNeverBeInstalled) {
    const QByteArray insecure =
        "<item><u:version>9</u:version><enclosure url=\"http://parlune.example/p.tar.gz\" length=\"5\" "
        "u:edSignature=\"" +
        kSignature + "\"/></item>";
    const QByteArray unsigned_ =
        "<item><u:version>9</u:version><enclosure url=\"https://parlune.example/p\" length=\"5\"/></item>";
    const QByteArray noEnclosure = "<item><u:version>9</u:version></item>";
    const QByteArray paddedSignature = item("9", {}, kSignature + "\n");
    const QByteArray shortSignature = item("9", {}, QByteArray(32, '\x07').toBase64());
    const Appcast::Result result = Appcast::parse(
        feed(insecure + unsigned_ + noEnclosure + paddedSignature + shortSignature + item("1.0")));
    ASSERT_EQ(result.items.size(), 1);
    EXPECT_EQ(result.items[0].version, QStringLiteral("1.0"));
}

TEST(AppcastTest, BrokenFeedsSayWhy) {
    EXPECT_TRUE(Appcast::parse(feed(item("1.0")).chopped(10))
                    .problem.startsWith(QStringLiteral("The update feed is not valid XML")));
    EXPECT_EQ(Appcast::parse("<html><body>Not found</body></html>").problem,
              QStringLiteral("The update feed has no channel."));
}

TEST(AppcastTest, OffersTheNewestItemAboveTheRunningVersion) {
    const Appcast::Result result = Appcast::parse(feed(item("0.9.0") + item("0.10.0") + item("0.2.0")));
    ASSERT_EQ(result.items.size(), 3);
    EXPECT_EQ(Appcast::newestAbove(result.items, QStringLiteral("0.1.0"))->version, QStringLiteral("0.10.0"));
    EXPECT_EQ(Appcast::newestAbove(result.items, QStringLiteral("0.10.0")), std::nullopt);
    EXPECT_EQ(Appcast::newestAbove(result.items, QStringLiteral("1.0")), std::nullopt);
}

TEST(VersionComparisonTest, OrdersVersionsAsPeopleReadThem) {
    const auto order = [](const char* a, const char* b) {
        return compareVersions(QString::fromLatin1(a), QString::fromLatin1(b));
    };
    EXPECT_LT(order("1.9", "1.10"), 0);
    EXPECT_EQ(order("1.0", "1.0.0"), 0);
    EXPECT_GT(order("1.0.1", "1.0"), 0);
    EXPECT_LT(order("1.0b1", "1.0"), 0);
    EXPECT_LT(order("1.0-rc2", "1.0"), 0);
    EXPECT_LT(order("1.0b2", "1.0rc1"), 0);
    EXPECT_LT(order("1.0b", "1.0.1"), 0);
    EXPECT_GT(order("2", "1.99.99"), 0);
    EXPECT_GT(order("99999999999999999999999", "1"), 0) << "overlong numbers saturate instead of wrapping";
}

} // namespace
} // namespace parlune
