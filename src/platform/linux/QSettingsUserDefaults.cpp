#include "platform/linux/QSettingsUserDefaults.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QStringDecoder>
#include <QStringList>

#include <cstdio>

namespace parlune {

namespace {

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

QSettingsUserDefaults::QSettingsUserDefaults(QString path) : path_(std::move(path)) { open(); }

QSettingsUserDefaults::~QSettingsUserDefaults() = default;

QString QSettingsUserDefaults::defaultPath() {
    QString configHome = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (configHome.isEmpty() || QDir::isRelativePath(configHome)) {
        configHome = QDir::homePath() + QStringLiteral("/.config");
    }
    return configHome + QStringLiteral("/parlune/parlune.conf");
}

void QSettingsUserDefaults::open() {
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
    if (!settings_) {
        const auto it = memoryOnly_.find(key);
        return it == memoryOnly_.end() ? QVariant() : it->second;
    }
    return settings_->value(key);
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

void QSettingsUserDefaults::setString(const QString& key, const QString& value) { store(key, value); }

void QSettingsUserDefaults::setInteger(const QString& key, qint64 value) { store(key, QVariant::fromValue(value)); }

void QSettingsUserDefaults::setBoolean(const QString& key, bool value) { store(key, value); }

void QSettingsUserDefaults::remove(const QString& key) {
    if (!settings_) {
        memoryOnly_.erase(key);
        return;
    }
    // Removing what is not there must not rewrite (or create) the file.
    if (!settings_->contains(key)) {
        return;
    }
    settings_->remove(key);
    save();
}

void QSettingsUserDefaults::store(const QString& key, const QVariant& value) {
    if (!settings_) {
        memoryOnly_[key] = value;
        return;
    }
    settings_->setValue(key, value);
    save();
}

void QSettingsUserDefaults::save() {
    QDir().mkpath(QFileInfo(path_).absolutePath());
    settings_->sync();
    if (settings_->status() == QSettings::NoError) {
        persisting_ = true;
        return;
    }
    // QSettings keeps the change in memory and tries again with the next save.
    persisting_ = false;
    if (!warnedAboutSaving_) {
        warnedAboutSaving_ = true;
        warn(QStringLiteral("settings could not be saved to %1; changes last until Parlune quits").arg(path_));
    }
}

void QSettingsUserDefaults::warn(const QString& message) {
    std::fprintf(stderr, "parlune: %s\n", message.toLocal8Bit().constData());
}

} // namespace parlune
