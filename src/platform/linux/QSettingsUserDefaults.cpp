#include "platform/linux/QSettingsUserDefaults.h"

#include <QDateTime>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QLockFile>
#include <QSettings>
#include <QStringDecoder>
#include <QStringList>
#include <QThread>

#include <chrono>
#include <cstdio>

#include <fcntl.h>
#include <unistd.h>

namespace parlune {

namespace {

// How long a save waits for another process's lock before giving up on this save.
constexpr std::chrono::seconds lockWait{2};
constexpr unsigned long lockRetryMs = 5;

// The file holds the user's writing preferences: readable by them alone.
constexpr QFileDevice::Permissions ownerOnly = QFileDevice::ReadOwner | QFileDevice::WriteOwner;

// Why an existing settings file cannot be used, or an empty string when it can.
QString problemWith(const QString& path) {
    const QFileInfo info(path);
    if (!info.exists()) {
        return {};
    }
    if (!info.isFile()) {
        return QStringLiteral("it is not a regular file");
    }
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly)) {
        return QStringLiteral("it cannot be read: ") + file.errorString();
    }
    const QByteArray content = file.readAll();
    if (file.error() != QFileDevice::NoError) {
        return QStringLiteral("it cannot be read: ") + file.errorString();
    }
    file.close();
    // The INI reader accepts almost anything; a file this program wrote is UTF-8 text without NULs.
    QStringDecoder utf8(QStringDecoder::Utf8, QStringDecoder::Flag::Stateless);
    (void)utf8.decode(content).operator QString();
    if (content.contains('\0') || utf8.hasError()) {
        return QStringLiteral("it is not a valid settings file");
    }
    const QSettings probe(path, QSettings::IniFormat);
    (void)probe.allKeys(); // the file is read on first use; its status means nothing before
    switch (probe.status()) {
    case QSettings::NoError:
        return {};
    case QSettings::AccessError:
        return QStringLiteral("it cannot be read");
    case QSettings::FormatError:
        return QStringLiteral("it is not a valid settings file");
    }
    return {};
}

QString textOf(const QVariant& value) {
    if (value.typeId() == QMetaType::QStringList) {
        // An unquoted value with commas, as a hand-edited file may hold.
        return value.toStringList().join(QStringLiteral(", "));
    }
    return value.toString();
}

} // namespace

QSettingsUserDefaults::QSettingsUserDefaults(QString path) : path_(std::move(path)) {
    open();
}

QSettingsUserDefaults::~QSettingsUserDefaults() = default;

QString QSettingsUserDefaults::defaultPath() {
    QString configHome = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (configHome.isEmpty() || QDir::isRelativePath(configHome)) {
        configHome = QDir::homePath() + QStringLiteral("/.config");
    }
    return configHome + QStringLiteral("/parlune/parlune.conf");
}

bool QSettingsUserDefaults::lockIsAvailable() const {
    // QSettings waits for its lock without end, even only to read (forever when the lock cannot
    // be created, e.g. a directory in its place): it is taken here first, with a bound. The lock is
    // tried every few milliseconds rather than with QLockFile's own timeout, whose doubling sleeps
    // look only five times in two seconds and so miss every free moment between busy writers.
    QLockFile lock(path_ + QStringLiteral(".lock"));
    const QDeadlineTimer deadline(lockWait);
    while (!lock.tryLock(0)) {
        if (deadline.hasExpired() || lock.error() == QLockFile::PermissionError ||
            lock.error() == QLockFile::UnknownError) {
            return false;
        }
        QThread::msleep(lockRetryMs);
    }
    lock.unlock();
    return true;
}

void QSettingsUserDefaults::open() {
    if (QFileInfo::exists(path_) && !lockIsAvailable()) {
        persisting_ = false;
        warn(QStringLiteral(
                 "settings file %1 was not read because its lock %1.lock cannot be taken; the default "
                 "settings apply and changes last until Parlune quits")
                 .arg(path_));
        return;
    }
    const QString problem = problemWith(path_);
    if (!problem.isEmpty()) {
        const QString aside =
            path_ + QStringLiteral(".corrupt-") +
            QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd'T'HHmmsszzz'Z'"));
        if (QFile::rename(path_, aside) || QDir().rename(path_, aside)) {
            setAsidePath_ = aside;
            warn(QStringLiteral("settings file %1 was not used because %2; it was moved to %3 and the "
                                "default settings apply")
                     .arg(path_, problem, aside));
        } else {
            persisting_ = false;
            warn(QStringLiteral("settings file %1 was not used because %2, and it could not be moved aside; "
                                "the default settings apply and changes last until Parlune quits")
                     .arg(path_, problem));
            return;
        }
    }
    settings_ = std::make_unique<QSettings>(path_, QSettings::IniFormat);
}

QVariant QSettingsUserDefaults::value(const QString& key) const {
    const auto it = memoryOnly_.find(key);
    if (it != memoryOnly_.end()) {
        return it->second;
    }
    return settings_ ? settings_->value(key) : QVariant();
}

std::optional<QString> QSettingsUserDefaults::string(const QString& key) const {
    const QVariant stored = value(key);
    if (!stored.isValid()) {
        return std::nullopt;
    }
    return textOf(stored);
}

qint64 QSettingsUserDefaults::integer(const QString& key) const {
    bool ok = false;
    const qint64 number = textOf(value(key)).trimmed().toLongLong(&ok);
    return ok ? number : 0;
}

bool QSettingsUserDefaults::boolean(const QString& key) const {
    const QString text = textOf(value(key)).trimmed().toLower();
    if (text == QStringLiteral("true") || text == QStringLiteral("yes")) {
        return true;
    }
    bool ok = false;
    const qint64 number = text.toLongLong(&ok);
    return ok && number != 0;
}

void QSettingsUserDefaults::setString(const QString& key, const QString& value) {
    store(key, value);
}

void QSettingsUserDefaults::setInteger(const QString& key, qint64 value) {
    store(key, QVariant::fromValue(value));
}

void QSettingsUserDefaults::setBoolean(const QString& key, bool value) {
    store(key, value);
}

void QSettingsUserDefaults::remove(const QString& key) {
    if (!settings_) {
        memoryOnly_.erase(key);
        return;
    }
    // Removing what is not there must not rewrite (or create) the file.
    if (!settings_->contains(key) && !memoryOnly_.contains(key)) {
        return;
    }
    store(key, QVariant());
}

void QSettingsUserDefaults::store(const QString& key, const QVariant& value) {
    if (!settings_) {
        if (value.isValid()) {
            memoryOnly_[key] = value;
        } else {
            memoryOnly_.erase(key);
        }
        return;
    }
    // Changes wait here (an invalid value: removed) until a save can take the lock, so QSettings
    // never holds a change it would try to write, and wait for, when it is destroyed.
    memoryOnly_[key] = value;
    save();
}

void QSettingsUserDefaults::save() {
    QDir().mkpath(QFileInfo(path_).absolutePath());
    // The writer creates the new file with the old one's permissions: start from owner-only.
    if (const int fd =
            ::open(QFile::encodeName(path_).constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        fd >= 0) {
        ::close(fd);
    }
    const bool locked = lockIsAvailable();
    if (locked) {
        for (const auto& [key, value] : memoryOnly_) {
            if (value.isValid()) {
                settings_->setValue(key, value);
            } else {
                settings_->remove(key);
            }
        }
        memoryOnly_.clear();
        settings_->sync();
    }
    // A file that turned unreadable since it was opened is still replaced by a whole new one;
    // what counts is whether what is there now reads back.
    const bool saved =
        locked && (settings_->status() == QSettings::NoError ||
                   (settings_->status() == QSettings::FormatError && problemWith(path_).isEmpty()));
    if (saved) {
        if ((QFile::permissions(path_) & ~ownerOnly) != QFileDevice::Permissions()) {
            QFile::setPermissions(path_, ownerOnly);
        }
        persisting_ = true;
        return;
    }
    // QSettings keeps the change in memory and tries again with the next save.
    persisting_ = false;
    if (!warnedAboutSaving_) {
        warnedAboutSaving_ = true;
        warn(
            QStringLiteral("settings could not be saved to %1; changes last until Parlune quits").arg(path_));
    }
}

void QSettingsUserDefaults::warn(const QString& message) {
    std::fprintf(stderr, "parlune: %s\n", message.toLocal8Bit().constData());
}

} // namespace parlune
