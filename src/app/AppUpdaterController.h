#pragma once

#include "core/shell/UpdateConfiguration.h"
#include "core/shell/UpdaterService.h"
#include "core/updates/UpdateBuildMetadata.h"

#include <QString>

#include <functional>
#include <optional>

namespace parlune::app {

// Update checks from the tray menu. A build whose feed and key match the production ones exactly
// may check the signed feed; every other build opens the download page in the browser.
class AppUpdaterController {
public:
    using OpenUrl = std::function<bool(const QUrl&)>;

    AppUpdaterController(UpdateConfiguration configuration, UpdateBuildMetadata metadata,
                         OpenUrl openUrl = {});

    // "Version 1.2.3", or "Development version" when the build has no version.
    static QString versionText(const QString& shortVersion);

    // Whether the signed-feed path is allowed for this build; no checker for it exists on Linux
    // yet, so such a build still opens the download page.
    bool signedUpdatesAllowed() const { return signedUpdatesAllowed_; }
    bool hasUpdater() const { return false; }
    bool canCheckForUpdates() const { return true; }
    // True when a check was started or the download page was opened.
    bool checkForUpdates();
    const UpdaterService& service() const { return service_; }

private:
    UpdaterService service_;
    bool signedUpdatesAllowed_;
    OpenUrl openUrl_;
};

} // namespace parlune::app
