#include "core/shell/UpdateConfiguration.h"
#include "core/shell/UpdaterService.h"
#include "support/QtPrinters.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

TEST(UpdateConfigurationTest, OnlyTheExactProductionFeedAndKeyAllowUpdates) {
    const QString feed = QStringLiteral("https://parlune.app/appcast.xml");
    const QString key = QString::fromLatin1(UpdateConfiguration::productionSparklePublicEDKey);
    const UpdateConfiguration production = UpdateConfiguration::production();
    // The exact pair, a trailing slash and no feed at all: AppUpdaterControllerTest.
    EXPECT_FALSE(production.canUseSparkle(feed, key + u'='));
    EXPECT_FALSE(production.canUseSparkle(feed, key.first(20) + u'\n' + key.sliced(20)));

    UpdateConfiguration staging = production;
    staging.appcastURL = QUrl(QStringLiteral("https://staging.parlune.app/appcast.xml"));
    EXPECT_FALSE(staging.canUseSparkle(staging.appcastURL.toString(), key));
    EXPECT_EQ(UpdaterService{staging}.manualUpdateURL(),
              QUrl(QStringLiteral("https://parlune.app/download")));
}

TEST(UpdateConfigurationTest, OnlyTheCanonicalSpellingOfThirtyTwoBytesIsAKey) {
    const auto canonical = [](const char* key) {
        return UpdateConfiguration::isCanonicalPublicKey(QString::fromUtf8(key));
    };
    EXPECT_TRUE(canonical("poWgjhW7mRlYI6lVvmLGD1wQJvJGdCJ8nxxrJuQHRv0="));
    // The same bytes: a stray low bit in the last character, missing padding, a line break.
    EXPECT_FALSE(canonical("poWgjhW7mRlYI6lVvmLGD1wQJvJGdCJ8nxxrJuQHRv1="));
    EXPECT_FALSE(canonical("poWgjhW7mRlYI6lVvmLGD1wQJvJGdCJ8nxxrJuQHRv0"));
    EXPECT_FALSE(canonical("poWgjhW7mRlYI6lVvmLGD1wQJvJG\ndCJ8nxxrJuQHRv0="));
    // 31 and 33 bytes.
    EXPECT_FALSE(canonical("poWgjhW7mRlYI6lVvmLGD1wQJvJGdCJ8nxxrJuQHRg=="));
    EXPECT_FALSE(canonical("poWgjhW7mRlYI6lVvmLGD1wQJvJGdCJ8nxxrJuQHRv0A"));
}

} // namespace
} // namespace parlune
