#include "cli/SettingsCommands.h"

#include "core/diagnostics/PrintableText.h"
#include "core/modes/RewriteMode.h"
#include "core/settings/SettingsStore.h"
#include "platform/linux/QSettingsUserDefaults.h"
#include "platform/linux/SecretServiceCredentialStore.h"

#include <QStringList>

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

namespace parlune::cli {

namespace {

constexpr const char* usage = "settings [set-mode MODE]";

QString title(RewriteMode mode) {
    const std::string_view raw = rewrite_mode::rawValue(mode);
    return QString::fromUtf8(raw.data(), static_cast<qsizetype>(raw.size()));
}

QString quotedModeTitles() {
    QStringList titles;
    for (RewriteMode mode : rewrite_mode::allCases) {
        titles << QLatin1Char('"') + title(mode) + QLatin1Char('"');
    }
    return titles.join(QStringLiteral(", "));
}

void print(const QString& line) {
    std::printf("%s\n", line.toLocal8Bit().constData());
}

void printError(const QString& line) {
    std::fprintf(stderr, "parlune-cli settings: %s\n", line.toLocal8Bit().constData());
}

// Only which modes have preferences is shown; their texts are the user's own words.
int show(const SettingsStore& store, const QSettingsUserDefaults& defaults) {
    QStringList modesWithPreferences;
    for (RewriteMode mode : rewrite_mode::allCases) {
        if (!store.writingPreferences(mode).isEmpty()) {
            modesWithPreferences << title(mode);
        }
    }
    print(QStringLiteral("Rewrite mode: ") + title(store.rewriteMode()));
    // The name is stored text: a hand-edited file could hold terminal escape sequences.
    print(QStringLiteral("Shortcut: ") +
          QString::fromStdString(printableText(store.hotKeyDisplayName().toStdString(), 64)));
    print(QStringLiteral("Writing preferences for: ") +
          (modesWithPreferences.isEmpty() ? QStringLiteral("no mode")
                                          : modesWithPreferences.join(QStringLiteral(", "))));
    print(QStringLiteral("Workflow test completed: ") +
          (store.hasCompletedTestRewrite() ? QStringLiteral("yes") : QStringLiteral("no")));
    print(QStringLiteral("Settings file: ") + defaults.path());
    return 0;
}

int setMode(SettingsStore& store, const QSettingsUserDefaults& defaults, const std::string& requested) {
    const std::optional<RewriteMode> mode = rewrite_mode::fromRawValue(requested);
    if (!mode) {
        printError(QStringLiteral("unknown mode \"%1\"; choose one of %2")
                       .arg(QString::fromLocal8Bit(requested.c_str()), quotedModeTitles()));
        return 2;
    }
    store.setRewriteMode(*mode);
    if (!defaults.isPersisting()) {
        printError(QStringLiteral("could not save the rewrite mode to %1").arg(defaults.path()));
        return 1;
    }
    print(QStringLiteral("Rewrite mode: ") + title(*mode));
    return 0;
}

int run(const std::vector<std::string>& arguments) {
    const bool showing = arguments.empty();
    const bool settingMode = arguments.size() == 2 && arguments[0] == "set-mode";
    if (!showing && !settingMode) {
        printError(QStringLiteral("usage: parlune-cli %1 (modes: %2)")
                       .arg(QLatin1String(usage), quotedModeTitles()));
        return 2;
    }
    QSettingsUserDefaults defaults;
    // Never asked for anything here: the command does not clean up legacy configuration.
    SecretServiceCredentialStore credentials;
    SettingsStore store(defaults, credentials, false);
    return showing ? show(store, defaults) : setMode(store, defaults, arguments[1]);
}

} // namespace

CliCommand settingsCommand() {
    return CliCommand{"settings", usage, "show the settings, or change the rewrite mode", &run};
}

} // namespace parlune::cli
