#include "core/updates/UpdateConfiguration.h"

#include <gtest/gtest.h>

namespace parlune {
namespace {

const QString kFeed = QStringLiteral("https://parlune.app/appcast.xml");
const QString kKey = QStringLiteral("poWgjhW7mRlYI6lVvmLGD1wQJvJGdCJ8nxxrJuQHRv0=");

TEST(UpdateConfigurationTest, OnlyTheExactProductionFeedAndKeyAllowTheVerifiedFeed) {
    const UpdateConfiguration production = UpdateConfiguration::production();
    EXPECT_TRUE(production.canUseVerifiedFeed(kFeed, kKey));

    EXPECT_FALSE(production.canUseVerifiedFeed(std::nullopt, kKey));
    EXPECT_FALSE(production.canUseVerifiedFeed(kFeed, std::nullopt));
    EXPECT_FALSE(production.canUseVerifiedFeed(kFeed + u'/', kKey)) << "a trailing slash is another address";
    EXPECT_FALSE(production.canUseVerifiedFeed(QStringLiteral("http://parlune.app/appcast.xml"), kKey));

    UpdateConfiguration development = production;
    development.appcastUrl = QUrl(QStringLiteral("https://localhost/appcast.xml"));
    EXPECT_FALSE(development.canUseVerifiedFeed(development.appcastUrl.toString(), kKey));
}

TEST(UpdateConfigurationTest, AKeyThatDecodesToTheSameBytesButIsSpelledOtherwiseIsRefused) {
    const UpdateConfiguration production = UpdateConfiguration::production();
    for (const QString& spelling :
         {kKey.chopped(1), kKey + u'=', kKey.left(20) + u'\n' + kKey.mid(20), kKey + u'\n', u' ' + kKey}) {
        EXPECT_EQ(QByteArray::fromBase64(spelling.toLatin1()).left(32),
                  QByteArray::fromBase64(kKey.toLatin1()));
        EXPECT_FALSE(production.canUseVerifiedFeed(kFeed, spelling)) << spelling.toStdString();
    }
}

TEST(UpdateConfigurationTest, ABuildWithoutMetadataHasNoVerifiedFeed) {
    const UpdateBuildMetadata metadata = UpdateBuildMetadata::ofThisBuild();
    EXPECT_FALSE(UpdateConfiguration::production().canUseVerifiedFeed(metadata.feedUrl, metadata.publicKey));
}

} // namespace
} // namespace parlune
