#pragma once

#include "core/async/ChangeSignal.h"
#include "core/shell/UpdateConfiguration.h"
#include "core/shell/UpdaterService.h"
#include "core/updates/UpdateBuildMetadata.h"
#include "core/updates/UpdateChecker.h"

#include <QString>

#include <functional>
#include <memory>
#include <optional>
#include <vector>

class QNetworkAccessManager;

namespace parlune::app {

// Update checks from the tray menu. A build whose feed and key match the production ones exactly
// checks the signed feed when the user asks, offers a newer version, downloads it, verifies its
// Ed25519 signature and hands it to the desktop's installer; every other build opens the download
// page in the browser. Nothing is fetched unless the user asked.
class AppUpdaterController {
public:
    struct Hooks {
        std::function<bool(const QUrl&)> openUrl;             // the desktop's handler
        std::function<void(const QString&)> report;           // a short status message
        std::function<bool(const QString& question)> confirm; // yes / no from the user
        QString downloadFolder;                               // where verified updates land
    };

    AppUpdaterController(UpdateConfiguration configuration, UpdateBuildMetadata metadata,
                         QString currentVersion, Hooks hooks = {});
    ~AppUpdaterController();

    // "Version 1.2.3", or "Development version" when the build has no version.
    static QString versionText(const QString& shortVersion);

    bool hasUpdater() const { return static_cast<bool>(checker_); }
    // False while a check or an update download runs.
    bool canCheckForUpdates() const;
    // True when a check was started or the download page was opened.
    bool checkForUpdates();
    const UpdaterService& service() const { return service_; }
    void setHooks(Hooks hooks);

private:
    void onChecked(const UpdateCheckResult& result);

    UpdaterService service_;
    Hooks hooks_;
    std::unique_ptr<QNetworkAccessManager> network_;
    std::unique_ptr<UpdateChecker> checker_;
    std::unique_ptr<VerifiedDownload> download_;
    std::vector<Subscription> subscriptions_;
};

} // namespace parlune::app
