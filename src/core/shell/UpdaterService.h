#pragma once

#include "core/shell/UpdateConfiguration.h"

#include <QUrl>

namespace parlune {

// The update settings the application runs with, and where a user updates by hand.
struct UpdaterService {
    UpdateConfiguration configuration = UpdateConfiguration::production();

    QUrl manualUpdateURL() const { return configuration.downloadPageURL; }
};

} // namespace parlune
