#include "app/AppUpdaterController.h"

#include <QDesktopServices>

namespace parlune::app {

AppUpdaterController::AppUpdaterController(UpdateConfiguration configuration, BuildMetadata metadata,
                                           OpenUrl openUrl)
    : service_{std::move(configuration)},
      signedUpdatesAllowed_(service_.configuration.canUseSparkle(metadata.feedURL, metadata.publicEDKey)),
      openUrl_(openUrl ? std::move(openUrl)
                       : OpenUrl([](const QUrl& url) { return QDesktopServices::openUrl(url); })) {}

AppUpdaterController::BuildMetadata AppUpdaterController::buildMetadata() {
    BuildMetadata metadata;
    const QString feed = QStringLiteral(PARLUNE_UPDATE_FEED_URL);
    const QString key = QStringLiteral(PARLUNE_UPDATE_PUBLIC_KEY);
    if (!feed.isEmpty()) {
        metadata.feedURL = feed;
    }
    if (!key.isEmpty()) {
        metadata.publicEDKey = key;
    }
    return metadata;
}

QString AppUpdaterController::versionText(const QString& shortVersion) {
    return shortVersion.isEmpty() ? QStringLiteral("Development version")
                                  : QStringLiteral("Version ") + shortVersion;
}

bool AppUpdaterController::checkForUpdates() {
    return openUrl_(service_.manualUpdateURL());
}

} // namespace parlune::app
