#include "core/shell/UpdateConfiguration.h"
#include "core/shell/UpdaterService.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

const QString feed = QStringLiteral("https://parlune.app/appcast.xml");
const QString key = QString::fromLatin1(UpdateConfiguration::productionSparklePublicEDKey);

TEST(UpdateConfigurationTest, ProductionBuildWithExactMetadataMayUpdate) {
    EXPECT_TRUE(UpdateConfiguration::production().canUseSparkle(feed, key));
    EXPECT_EQ(UpdaterService{}.manualUpdateURL(), QUrl(QStringLiteral("https://parlune.app/download")));
}

TEST(UpdateConfigurationTest, AnyDifferenceInFeedOrKeyTextDisablesUpdates) {
    const UpdateConfiguration production = UpdateConfiguration::production();
    EXPECT_FALSE(production.canUseSparkle(feed + u'/', key));
    EXPECT_FALSE(production.canUseSparkle(QStringLiteral("http://parlune.app/appcast.xml"), key));
    EXPECT_FALSE(production.canUseSparkle(std::nullopt, key));
    EXPECT_FALSE(production.canUseSparkle(feed, std::nullopt));

    // The same 32 bytes written another way.
    EXPECT_FALSE(production.canUseSparkle(feed, key + u'='));
    EXPECT_FALSE(production.canUseSparkle(feed, key.chopped(1)));
    EXPECT_FALSE(production.canUseSparkle(feed, key.first(20) + u'\n' + key.sliced(20)));
    EXPECT_FALSE(production.canUseSparkle(feed, key + u'\n'));
    // Other bytes, or another length.
    EXPECT_FALSE(
        production.canUseSparkle(feed, QStringLiteral("AAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAAA=")));
    EXPECT_FALSE(
        production.canUseSparkle(feed, QStringLiteral("poWgjhW7mRlYI6lVvmLGD1wQJvJGdCJ8nxxrJuQHRg==")));
}

TEST(UpdateConfigurationTest, OnlyTheCanonicalSpellingOfThirtyTwoBytesIsAKey) {
    EXPECT_TRUE(UpdateConfiguration::isCanonicalPublicKey(key));
    // Same bytes: a stray low bit in the last character, missing padding, a line break.
    EXPECT_FALSE(UpdateConfiguration::isCanonicalPublicKey(
        QStringLiteral("poWgjhW7mRlYI6lVvmLGD1wQJvJGdCJ8nxxrJuQHRv1=")));
    EXPECT_FALSE(UpdateConfiguration::isCanonicalPublicKey(key.chopped(1)));
    EXPECT_FALSE(UpdateConfiguration::isCanonicalPublicKey(key.first(44 - 4) + u'\n' + key.sliced(40)));
    // 31 and 33 bytes.
    EXPECT_FALSE(UpdateConfiguration::isCanonicalPublicKey(
        QStringLiteral("poWgjhW7mRlYI6lVvmLGD1wQJvJGdCJ8nxxrJuQHRg==")));
    EXPECT_FALSE(UpdateConfiguration::isCanonicalPublicKey(
        QStringLiteral("poWgjhW7mRlYI6lVvmLGD1wQJvJGdCJ8nxxrJuQHRv0A")));
    EXPECT_FALSE(UpdateConfiguration::isCanonicalPublicKey(
        QStringLiteral("pöWgjhW7mRlYI6lVvmLGD1wQJvJGdCJ8nxxrJuQHRv0=")));
}

TEST(UpdateConfigurationTest, NonProductionFeedNeverUpdatesEvenWithMatchingMetadata) {
    UpdateConfiguration staging = UpdateConfiguration::production();
    staging.appcastURL = QUrl(QStringLiteral("https://staging.parlune.app/appcast.xml"));
    EXPECT_FALSE(staging.canUseSparkle(staging.appcastURL.toString(), key));
    EXPECT_FALSE(staging == UpdateConfiguration::production());
}

} // namespace
} // namespace parlune
