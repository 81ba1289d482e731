#include "platform/linux/DesktopLauncher.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QProcess>
#include <QProcessEnvironment>
#include <QStringList>
#include <QUrl>

namespace parlune {

bool DesktopLauncher::hasHandlerForScheme(const QString& scheme) {
    // xdg-open is started detached, so its own failure comes too late to report; what it would
    // look up is the desktop's table of scheme handlers, which is read here instead.
    const QString wanted = QStringLiteral("x-scheme-handler/") + scheme.toLower();
    QStringList files;
    const QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    const QString configHome =
        environment.value(QStringLiteral("XDG_CONFIG_HOME"), QDir::homePath() + QStringLiteral("/.config"));
    files << configHome + QStringLiteral("/mimeapps.list");
    const QString dataHome = environment.value(QStringLiteral("XDG_DATA_HOME"),
                                               QDir::homePath() + QStringLiteral("/.local/share"));
    QStringList dataDirs =
        environment.value(QStringLiteral("XDG_DATA_DIRS"), QStringLiteral("/usr/local/share:/usr/share"))
            .split(QLatin1Char(':'), Qt::SkipEmptyParts);
    dataDirs.prepend(dataHome);
    for (const QString& dir : dataDirs) {
        files << dir + QStringLiteral("/applications/mimeapps.list")
              << dir + QStringLiteral("/applications/mimeinfo.cache");
    }
    for (const QString& path : files) {
        QFile file(path);
        if (!file.open(QIODevice::ReadOnly | QIODevice::Text)) {
            continue;
        }
        while (!file.atEnd()) {
            const QString line = QString::fromUtf8(file.readLine()).trimmed();
            const qsizetype equals = line.indexOf(QLatin1Char('='));
            if (equals > 0 && line.left(equals).trimmed().compare(wanted, Qt::CaseInsensitive) == 0 &&
                !line.mid(equals + 1).trimmed().isEmpty()) {
                return true;
            }
        }
    }
    return false;
}

bool DesktopLauncher::openUrl(const QString& url) {
    const QUrl parsed(url.trimmed(), QUrl::StrictMode);
    if (!parsed.isValid() || parsed.scheme().isEmpty()) {
        return false;
    }
    static const QStringList everywhere{QStringLiteral("file"), QStringLiteral("http"),
                                        QStringLiteral("https")};
    if (!everywhere.contains(parsed.scheme().toLower()) && !hasHandlerForScheme(parsed.scheme())) {
        return false;
    }
    return QProcess::startDetached(QStringLiteral("xdg-open"), {parsed.toString()});
}

bool DesktopLauncher::openApplication(const QString& path) {
    const QFileInfo info(path);
    if (!info.isFile() || !info.isExecutable()) {
        return false;
    }
    return QProcess::startDetached(info.absoluteFilePath(), {});
}

} // namespace parlune
