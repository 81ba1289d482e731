#pragma once

#include "core/platform/UserDefaults.h"

#include <QString>
#include <QVariant>

#include <map>
#include <memory>

class QSettings;

namespace parlune {

// User defaults in an INI file, by default $XDG_CONFIG_HOME/parlune/parlune.conf. Every write is
// saved at once, atomically (a new file replaces the old one, so a crash never leaves half a
// file) and under a lock, merged with what other processes wrote meanwhile.
//
// A file that cannot be read or parsed is never overwritten: it is moved aside to
// "<file>.corrupt-<time>", reported once on stderr, and the store starts from defaults. When even
// that is impossible the store keeps changes in memory for this run only. A lock that cannot be
// taken within two seconds ends a save as not saved (the change is kept and saved with the next).
// The file is readable by its owner only.
class QSettingsUserDefaults final : public UserDefaults {
public:
    explicit QSettingsUserDefaults(QString path = defaultPath());
    ~QSettingsUserDefaults() override;
    QSettingsUserDefaults(const QSettingsUserDefaults&) = delete;
    QSettingsUserDefaults& operator=(const QSettingsUserDefaults&) = delete;

    // $XDG_CONFIG_HOME/parlune/parlune.conf, or ~/.config/parlune/parlune.conf when that variable
    // is unset, empty or not absolute.
    static QString defaultPath();

    std::optional<QString> string(const QString& key) const override;
    qint64 integer(const QString& key) const override;
    bool boolean(const QString& key) const override;
    void setString(const QString& key, const QString& value) override;
    void setInteger(const QString& key, qint64 value) override;
    void setBoolean(const QString& key, bool value) override;
    void remove(const QString& key) override;

    const QString& path() const { return path_; }
    // Where an unusable file was moved at opening; empty when none was.
    const QString& setAsidePath() const { return setAsidePath_; }
    // False once a change could not be saved to the file (it is still kept for this run).
    bool isPersisting() const { return persisting_; }

private:
    void open();
    QVariant value(const QString& key) const;
    void store(const QString& key, const QVariant& value);
    void save();
    void warn(const QString& message);
    bool lockIsAvailable() const;

    QString path_;
    QString setAsidePath_;
    bool persisting_ = true;
    bool warnedAboutSaving_ = false;
    std::unique_ptr<QSettings> settings_;
    // Used instead of the file when the file can be neither read nor moved aside (or its lock
    // taken at opening); otherwise the changes not saved yet, an invalid value for a removal.
    std::map<QString, QVariant> memoryOnly_;
};

} // namespace parlune
