#include "platform/linux/AutostartEntry.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSaveFile>
#include <QStandardPaths>

namespace parlune {

namespace {

// Desktop-entry Exec values quote arguments containing reserved characters.
QString quotedForExec(const QString& path) {
    static const QString reserved = QStringLiteral(" \t\n\"'\\><~|&;$*?#()`");
    bool needsQuotes = false;
    for (const QChar c : path) {
        needsQuotes = needsQuotes || reserved.contains(c);
    }
    if (!needsQuotes) {
        return path;
    }
    QString escaped = path;
    escaped.replace(QLatin1Char('\\'), QStringLiteral("\\\\\\\\"));
    escaped.replace(QLatin1Char('"'), QStringLiteral("\\\\\""));
    escaped.replace(QLatin1Char('`'), QStringLiteral("\\\\`"));
    escaped.replace(QLatin1Char('$'), QStringLiteral("\\\\$"));
    return QLatin1Char('"') + escaped + QLatin1Char('"');
}

} // namespace

AutostartEntry::AutostartEntry(QString executable, QString path)
    : executable_(std::move(executable)), path_(std::move(path)) {}

QString AutostartEntry::defaultPath() {
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) +
           QStringLiteral("/autostart/parlune.desktop");
}

bool AutostartEntry::isEnabled() const {
    return QFileInfo::exists(path_);
}

bool AutostartEntry::setEnabled(bool enabled) {
    if (!enabled) {
        return !QFileInfo::exists(path_) || QFile::remove(path_);
    }
    if (!QDir().mkpath(QFileInfo(path_).absolutePath())) {
        return false;
    }
    QSaveFile file(path_);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Text)) {
        return false;
    }
    const QString entry = QStringLiteral("[Desktop Entry]\n"
                                         "Type=Application\n"
                                         "Name=Parlune\n"
                                         "Comment=Rewrite selected text on this computer\n"
                                         "Exec=%1\n"
                                         "Icon=parlune\n"
                                         "Terminal=false\n"
                                         "X-GNOME-Autostart-enabled=true\n")
                              .arg(quotedForExec(executable_));
    file.write(entry.toUtf8());
    return file.commit();
}

} // namespace parlune
