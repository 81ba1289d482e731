#include "app/AppUpdaterController.h"

#include <QDesktopServices>

namespace parlune::app {

AppUpdaterController::AppUpdaterController(UpdateConfiguration configuration, UpdateBuildMetadata metadata,
                                           OpenUrl openUrl)
    : service_{std::move(configuration)},
      signedUpdatesAllowed_(service_.configuration.canUseSparkle(metadata.feedUrl, metadata.publicKey)),
      openUrl_(openUrl ? std::move(openUrl)
                       : OpenUrl([](const QUrl& url) { return QDesktopServices::openUrl(url); })) {}

QString AppUpdaterController::versionText(const QString& shortVersion) {
    return shortVersion.isEmpty() ? QStringLiteral("Development version")
                                  : QStringLiteral("Version ") + shortVersion;
}

bool AppUpdaterController::checkForUpdates() {
    return openUrl_(service_.manualUpdateURL());
}

} // namespace parlune::app
