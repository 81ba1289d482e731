#pragma once

#include "core/async/ChangeSignal.h"
#include "core/hotkeys/HotKeyShortcut.h"
#include "core/modes/RewriteMode.h"

#include <QMap>
#include <QString>

#include <cstdint>

namespace parlune {

class CredentialStore;
class UserDefaults;

// The user's preferences. Reads everything once at construction, applying defaults and migrating
// older layouts; every change is written straight through to the user-defaults store and
// announced on `changed`. Main thread only.
class SettingsStore {
public:
    enum class Field {
        hotKeyIdentifier,
        hotKeyKeyCode,
        hotKeyModifiers,
        hotKeyDisplayName,
        rewriteMode,
        writingPreferencesByMode,
        hasCompletedTestRewrite,
        localModelPath,
    };

    // Keys in the user-defaults store.
    static constexpr const char* hotKeyIdentifierKey = "hotKeyIdentifier";
    static constexpr const char* hotKeyKeyCodeKey = "hotKeyKeyCode";
    static constexpr const char* hotKeyModifiersKey = "hotKeyModifiers";
    static constexpr const char* hotKeyDisplayNameKey = "hotKeyDisplayName";
    static constexpr const char* rewriteModeKey = "rewriteMode";
    static constexpr const char* writingPreferencesByModeKey = "writingPreferencesByMode";
    static constexpr const char* workflowTestKey = "localIntelligenceWorkflowTestV1";
    // An explicit model file, chosen before PARLUNE_MODEL and the models folder.
    static constexpr const char* localModelPathKey = "localModelPath";
    // The single preferences text of earlier versions, migrated into the per-mode map.
    static constexpr const char* legacyWritingPreferencesKey = "writingPreferences";

    // The credential of the former hosted provider, deleted on request.
    static constexpr const char* legacyCredentialService = "app.parlune.provider-api-key";
    static constexpr const char* legacyCredentialAccount = "default";

    // Both stores must outlive the settings store. With `removeLegacyHostedConfiguration`, the
    // hosted-provider settings and credential of earlier versions are deleted.
    SettingsStore(UserDefaults& defaults, CredentialStore& credentials, bool removeLegacyHostedConfiguration);
    SettingsStore(const SettingsStore&) = delete;
    SettingsStore& operator=(const SettingsStore&) = delete;

    const QString& hotKeyIdentifier() const { return hotKeyIdentifier_; }
    std::uint32_t hotKeyKeyCode() const { return hotKeyKeyCode_; }
    std::uint32_t hotKeyModifiers() const { return hotKeyModifiers_; }
    const QString& hotKeyDisplayName() const { return hotKeyDisplayName_; }
    RewriteMode rewriteMode() const { return rewriteMode_; }
    // Preferences text by mode title.
    const QMap<QString, QString>& writingPreferencesByMode() const { return writingPreferencesByMode_; }
    bool hasCompletedTestRewrite() const { return hasCompletedTestRewrite_; }
    // Read afresh each time, so a path set from a terminal applies without a restart; empty: none.
    QString localModelPath() const;

    void setHotKeyIdentifier(const QString& identifier);
    void setHotKeyKeyCode(std::uint32_t keyCode);
    void setHotKeyModifiers(std::uint32_t modifiers);
    void setHotKeyDisplayName(const QString& displayName);
    void setRewriteMode(RewriteMode mode);
    void setWritingPreferencesByMode(QMap<QString, QString> preferences);
    void setHasCompletedTestRewrite(bool completed);
    // An explicit model file; empty removes the setting, so the usual places apply again.
    void setLocalModelPath(const QString& path);

    // The mode's preferences text, or "" when it has none.
    QString writingPreferences(RewriteMode mode) const;
    // Stores the text unchanged under the mode, or removes the mode's entry when the text is
    // only white space; then saves the map.
    void setWritingPreferences(const QString& text, RewriteMode mode);
    // The same for the current mode.
    QString writingPreferences() const { return writingPreferences(rewriteMode_); }
    void setWritingPreferences(const QString& text) { setWritingPreferences(text, rewriteMode_); }

    HotKeyShortcut selectedHotKey() const;
    // Writes the shortcut's key code, modifiers and display name.
    void saveHotKey(const HotKeyShortcut& shortcut);
    void markTestRewriteCompleted() { setHasCompletedTestRewrite(true); }

    // Called after every change with the field that changed.
    ChangeSignal<Field> changed;

private:
    void load();
    void saveWritingPreferencesByMode();
    void removeLegacyHostedConfiguration();

    UserDefaults& defaults_;
    CredentialStore& credentials_;

    QString hotKeyIdentifier_;
    std::uint32_t hotKeyKeyCode_ = 0;
    std::uint32_t hotKeyModifiers_ = 0;
    QString hotKeyDisplayName_;
    RewriteMode rewriteMode_ = rewrite_mode::defaultMode;
    QMap<QString, QString> writingPreferencesByMode_;
    bool hasCompletedTestRewrite_ = false;
};

} // namespace parlune
