#pragma once

#include <QString>

namespace parlune {

// The XDG autostart entry that starts the program at login: present means on. Only the user's own
// entry is touched ($XDG_CONFIG_HOME/autostart/parlune.desktop); a system-wide one is left alone.
class AutostartEntry {
public:
    explicit AutostartEntry(QString executable, QString path = defaultPath());

    static QString defaultPath();
    bool isEnabled() const;
    // Writes or removes the entry; false (and nothing half-written) when that failed.
    bool setEnabled(bool enabled);
    const QString& path() const { return path_; }

private:
    QString executable_;
    QString path_;
};

} // namespace parlune
