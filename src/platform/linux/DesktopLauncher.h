#pragma once

#include <QString>

namespace parlune {

// Opens URLs and programs for the user, the same under every Linux session.
class DesktopLauncher {
public:
    // Opens `url` with xdg-open; false when it is malformed or nothing handles its scheme.
    static bool openUrl(const QString& url);
    // Starts an executable file; false when `path` is not one.
    static bool openApplication(const QString& path);
    // Whether the desktop lists an application for URLs of this scheme (mimeapps.list and the
    // desktop-file caches under the XDG directories). A URL without one is refused at once, so
    // that the caller can fall back to opening an application instead.
    static bool hasHandlerForScheme(const QString& scheme);
};

} // namespace parlune
