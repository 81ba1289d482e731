#include "core/selection/AccessibilityPermission.h"

#include "core/platform/AccessibilityApi.h"
#include "core/platform/PlatformTerms.h"
#include "core/platform/Workspace.h"

#include <QString>
#include <QUrl>

namespace parlune {

AccessibilityPermission::AccessibilityPermission(AccessibilityApi& accessibility, Workspace& workspace,
                                                 const PlatformTerms& terms)
    : accessibility_(accessibility), workspace_(workspace), terms_(terms) {}

bool AccessibilityPermission::isTrusted() const {
    return accessibility_.isProcessTrusted();
}

bool AccessibilityPermission::requestIfNeeded() {
    if (accessibility_.isProcessTrusted()) {
        return true;
    }
    return accessibility_.requestTrustWithPrompt();
}

bool AccessibilityPermission::requestAndOpenSettings(const std::function<void()>& refreshReadiness) {
    const bool trusted = requestIfNeeded();
    if (refreshReadiness) {
        refreshReadiness();
    }
    if (trusted) {
        return true;
    }
    const QString location =
        QString::fromUtf8(terms_.accessibilitySettingsLocation.data(),
                          static_cast<qsizetype>(terms_.accessibilitySettingsLocation.size()));
    const bool urlUsable = !location.isEmpty() && QUrl(location, QUrl::StrictMode).isValid();
    if (!urlUsable || !workspace_.openUrl(location)) {
        workspace_.openApplication(
            QString::fromUtf8(terms_.settingsApplicationPath.data(),
                              static_cast<qsizetype>(terms_.settingsApplicationPath.size())));
    }
    return false;
}

} // namespace parlune
