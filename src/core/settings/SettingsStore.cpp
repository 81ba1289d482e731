#include "core/settings/SettingsStore.h"

#include "core/hotkeys/HotKeyPreset.h"
#include "core/platform/CredentialStore.h"
#include "core/platform/UserDefaults.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QJsonValue>

#include <limits>
#include <optional>
#include <string_view>

namespace parlune {

namespace {

QString key(const char* name) {
    return QString::fromLatin1(name);
}

QString modeTitle(RewriteMode mode) {
    const std::string_view raw = rewrite_mode::rawValue(mode);
    return QString::fromUtf8(raw.data(), static_cast<qsizetype>(raw.size()));
}

// A stored key code or modifier mask. A value that no unsigned 32-bit field can hold comes from a
// damaged or hand-edited file and counts as missing, like 0.
std::uint32_t storedUInt32(const UserDefaults& defaults, const char* name) {
    const qint64 value = defaults.integer(key(name));
    if (value < 0 || value > static_cast<qint64>(std::numeric_limits<std::uint32_t>::max())) {
        return 0;
    }
    return static_cast<std::uint32_t>(value);
}

// The map of mode titles to texts, or an empty map unless the whole string is a JSON object of
// strings.
QMap<QString, QString> decodePreferences(const std::optional<QString>& stored) {
    QMap<QString, QString> preferences;
    if (!stored) {
        return preferences;
    }
    QJsonParseError error{};
    const QJsonDocument document = QJsonDocument::fromJson(stored->toUtf8(), &error);
    if (error.error != QJsonParseError::NoError || !document.isObject()) {
        return preferences;
    }
    const QJsonObject object = document.object();
    for (auto it = object.begin(); it != object.end(); ++it) {
        if (!it.value().isString()) {
            return {};
        }
        preferences.insert(it.key(), it.value().toString());
    }
    return preferences;
}

bool isBlank(const QString& text) {
    return text.trimmed().isEmpty();
}

} // namespace

SettingsStore::SettingsStore(UserDefaults& defaults, CredentialStore& credentials,
                             bool removeLegacyHostedConfiguration)
    : defaults_(defaults), credentials_(credentials) {
    load();
    if (removeLegacyHostedConfiguration) {
        this->removeLegacyHostedConfiguration();
    }
}

void SettingsStore::load() {
    hotKeyIdentifier_ =
        defaults_.string(key(hotKeyIdentifierKey)).value_or(HotKeyPreset::defaultID.toString());

    const std::uint32_t keyCode = storedUInt32(defaults_, hotKeyKeyCodeKey);
    const std::uint32_t modifiers = storedUInt32(defaults_, hotKeyModifiersKey);
    const HotKeyShortcut fallback = HotKeyShortcut::defaultShortcut();
    if (keyCode == 0 || modifiers == 0) {
        hotKeyKeyCode_ = fallback.keyCode;
        hotKeyModifiers_ = fallback.carbonModifiers;
        hotKeyDisplayName_ = fallback.displayName;
    } else {
        hotKeyKeyCode_ = keyCode;
        hotKeyModifiers_ = modifiers;
        hotKeyDisplayName_ = defaults_.string(key(hotKeyDisplayNameKey)).value_or(fallback.displayName);
    }

    const std::optional<QString> storedMode = defaults_.string(key(rewriteModeKey));
    const std::optional<RewriteMode> mode =
        storedMode ? rewrite_mode::fromRawValue(storedMode->toStdString()) : std::nullopt;
    rewriteMode_ = mode.value_or(rewrite_mode::defaultMode);

    writingPreferencesByMode_ = decodePreferences(defaults_.string(key(writingPreferencesByModeKey)));
    if (writingPreferencesByMode_.isEmpty()) {
        // Earlier versions kept one text for every mode; it becomes the current mode's. The old key
        // stays, and the map is written with the next change.
        const std::optional<QString> legacy = defaults_.string(key(legacyWritingPreferencesKey));
        if (legacy && !isBlank(*legacy)) {
            writingPreferencesByMode_.insert(modeTitle(rewriteMode_), *legacy);
        }
    }

    hasCompletedTestRewrite_ = defaults_.boolean(key(workflowTestKey));
}

void SettingsStore::removeLegacyHostedConfiguration() {
    for (const char* name : {"baseURL", "model", "hasSavedAPIKey"}) {
        defaults_.remove(key(name));
    }
    // Whatever the outcome, there is nothing more to do: the item is never read.
    (void)credentials_.deleteItem(key(legacyCredentialService), key(legacyCredentialAccount));
}

QString SettingsStore::localModelPath() const {
    return defaults_.string(key(localModelPathKey)).value_or(QString()).trimmed();
}

void SettingsStore::setHotKeyIdentifier(const QString& identifier) {
    hotKeyIdentifier_ = identifier;
    defaults_.setString(key(hotKeyIdentifierKey), identifier);
    changed.emit(Field::hotKeyIdentifier);
}

void SettingsStore::setHotKeyKeyCode(std::uint32_t keyCode) {
    hotKeyKeyCode_ = keyCode;
    defaults_.setInteger(key(hotKeyKeyCodeKey), keyCode);
    changed.emit(Field::hotKeyKeyCode);
}

void SettingsStore::setHotKeyModifiers(std::uint32_t modifiers) {
    hotKeyModifiers_ = modifiers;
    defaults_.setInteger(key(hotKeyModifiersKey), modifiers);
    changed.emit(Field::hotKeyModifiers);
}

void SettingsStore::setHotKeyDisplayName(const QString& displayName) {
    hotKeyDisplayName_ = displayName;
    defaults_.setString(key(hotKeyDisplayNameKey), displayName);
    changed.emit(Field::hotKeyDisplayName);
}

void SettingsStore::setRewriteMode(RewriteMode mode) {
    rewriteMode_ = mode;
    defaults_.setString(key(rewriteModeKey), modeTitle(mode));
    changed.emit(Field::rewriteMode);
}

void SettingsStore::setWritingPreferencesByMode(QMap<QString, QString> preferences) {
    writingPreferencesByMode_ = std::move(preferences);
    saveWritingPreferencesByMode();
    changed.emit(Field::writingPreferencesByMode);
}

void SettingsStore::setHasCompletedTestRewrite(bool completed) {
    hasCompletedTestRewrite_ = completed;
    defaults_.setBoolean(key(workflowTestKey), completed);
    changed.emit(Field::hasCompletedTestRewrite);
}

void SettingsStore::setLocalModelPath(const QString& path) {
    if (path.trimmed().isEmpty()) {
        defaults_.remove(key(localModelPathKey));
    } else {
        defaults_.setString(key(localModelPathKey), path);
    }
    changed.emit(Field::localModelPath);
}

QString SettingsStore::writingPreferences(RewriteMode mode) const {
    return writingPreferencesByMode_.value(modeTitle(mode));
}

void SettingsStore::setWritingPreferences(const QString& text, RewriteMode mode) {
    QMap<QString, QString> preferences = writingPreferencesByMode_;
    if (isBlank(text)) {
        preferences.remove(modeTitle(mode));
    } else {
        preferences.insert(modeTitle(mode), text);
    }
    setWritingPreferencesByMode(std::move(preferences));
}

HotKeyShortcut SettingsStore::selectedHotKey() const {
    return HotKeyShortcut{hotKeyKeyCode_, hotKeyModifiers_, hotKeyDisplayName_};
}

void SettingsStore::saveHotKey(const HotKeyShortcut& shortcut) {
    setHotKeyKeyCode(shortcut.keyCode);
    setHotKeyModifiers(shortcut.carbonModifiers);
    setHotKeyDisplayName(shortcut.displayName);
}

void SettingsStore::saveWritingPreferencesByMode() {
    QJsonObject object;
    for (auto it = writingPreferencesByMode_.cbegin(); it != writingPreferencesByMode_.cend(); ++it) {
        object.insert(it.key(), it.value());
    }
    const QByteArray json = QJsonDocument(object).toJson(QJsonDocument::Compact);
    defaults_.setString(key(writingPreferencesByModeKey), QString::fromUtf8(json));
}

} // namespace parlune
