#include "app/AppUpdaterController.h"

#include <QDesktopServices>
#include <QNetworkAccessManager>
#include <QStandardPaths>
#include <QUrl>

namespace parlune::app {

AppUpdaterController::AppUpdaterController(UpdateConfiguration configuration, UpdateBuildMetadata metadata,
                                           QString currentVersion, Hooks hooks)
    : service_{std::move(configuration)} {
    setHooks(std::move(hooks));
    if (service_.configuration.canUseSparkle(metadata.feedUrl, metadata.publicKey)) {
        // A network object sends nothing by itself; the first request is the user's check.
        network_ = std::make_unique<QNetworkAccessManager>();
        checker_ = UpdateChecker::forThisBuild(*network_, service_.configuration, metadata,
                                               std::move(currentVersion));
        subscriptions_.push_back(
            checker_->checked.connect([this](const UpdateCheckResult& result) { onChecked(result); }));
    }
}

AppUpdaterController::~AppUpdaterController() = default;

void AppUpdaterController::setHooks(Hooks hooks) {
    hooks_ = std::move(hooks);
    if (!hooks_.openUrl) {
        hooks_.openUrl = [](const QUrl& url) { return QDesktopServices::openUrl(url); };
    }
    if (hooks_.downloadFolder.isEmpty()) {
        hooks_.downloadFolder = QStandardPaths::writableLocation(QStandardPaths::DownloadLocation);
    }
}

QString AppUpdaterController::versionText(const QString& shortVersion) {
    return shortVersion.isEmpty() ? QStringLiteral("Development version")
                                  : QStringLiteral("Version ") + shortVersion;
}

bool AppUpdaterController::canCheckForUpdates() const {
    const bool downloading = download_ && download_->state() != VerifiedDownload::State::finished &&
                             download_->state() != VerifiedDownload::State::failed;
    return !checker_ || (!checker_->checking() && !downloading);
}

bool AppUpdaterController::checkForUpdates() {
    if (checker_) {
        return canCheckForUpdates() && checker_->check();
    }
    return hooks_.openUrl(service_.manualUpdateURL());
}

void AppUpdaterController::onChecked(const UpdateCheckResult& result) {
    const auto report = [this](const QString& message) {
        if (hooks_.report) {
            hooks_.report(message);
        }
    };
    switch (result.outcome) {
    case UpdateCheckResult::Outcome::upToDate:
        report(QStringLiteral("Parlune is up to date."));
        return;
    case UpdateCheckResult::Outcome::failed:
        report(result.failure);
        return;
    case UpdateCheckResult::Outcome::updateAvailable:
        break;
    }
    const AppcastItem& offer = *result.offer;
    const QString question =
        QStringLiteral("Parlune %1 is available. Download it and check its signature now?")
            .arg(offer.shortVersion);
    if (!hooks_.confirm || !hooks_.confirm(question)) {
        return;
    }
    download_ = checker_->download(offer, hooks_.downloadFolder);
    subscriptions_.push_back(download_->stateChanged.connect([this, report](VerifiedDownload::State state) {
        if (state == VerifiedDownload::State::finished) {
            const QString path = download_->partPath().chopped(5);
            // The desktop's installer opens packages; where there is none, the user is told where it is.
            if (!hooks_.openUrl(QUrl::fromLocalFile(path))) {
                report(QStringLiteral("The update is downloaded and verified: %1").arg(path));
            }
        } else if (state == VerifiedDownload::State::failed) {
            report(download_->failure());
        }
    }));
    download_->start();
}

} // namespace parlune::app
