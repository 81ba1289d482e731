#include "core/settings/SettingsStore.h"
#include "core/platform/PlatformTerms.h"
#include "support/FakeCredentialStore.h"
#include "support/FakeUserDefaults.h"
#include "support/QtPrinters.h"

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <memory>

namespace parlune {
namespace {

using testing::FakeCredentialStore;
using testing::FakeUserDefaults;

class SettingsStoreTest : public ::testing::Test {
protected:
    std::unique_ptr<SettingsStore> open(bool removeLegacy = false) {
        return std::make_unique<SettingsStore>(defaults_, credentials_, removeLegacy);
    }
    QJsonObject storedPreferences() const {
        return QJsonDocument::fromJson(defaults_.string("writingPreferencesByMode").value_or("").toUtf8())
            .object();
    }

    FakeUserDefaults defaults_;
    FakeCredentialStore credentials_;
};

// The default mode, shortcut, preferences and workflow flag are shown by the CLI's settings test
// and are the fallbacks below.
TEST_F(SettingsStoreTest, FreshInstallationReadsTheDefaultsAndWritesNothing) {
    EXPECT_EQ(open()->hotKeyIdentifier(), "option-space");
    EXPECT_TRUE(defaults_.writes.empty());
}

TEST_F(SettingsStoreTest, StoredShortcutAndModeAreUsedOnlyWhenWhole) {
    const HotKeyShortcut fallback{49, 2048, "Alt+Space"};
    const qint64 tooLarge = 4294967296;
    const std::pair<std::map<QString, FakeUserDefaults::Value>, HotKeyShortcut> cases[] = {
        {{{"hotKeyKeyCode", qint64(0)}, {"hotKeyModifiers", qint64(256)}}, fallback},
        {{{"hotKeyKeyCode", qint64(15)}, {"hotKeyDisplayName", QString("Ctrl+Alt+R")}}, fallback},
        {{{"hotKeyKeyCode", qint64(15)},
          {"hotKeyModifiers", qint64(6144)},
          {"hotKeyDisplayName", QString("C+R")}},
         {15, 6144, "C+R"}},
        {{{"hotKeyKeyCode", qint64(15)}, {"hotKeyModifiers", qint64(6144)}}, {15, 6144, "Alt+Space"}},
        {{{"hotKeyKeyCode", tooLarge - 1}, {"hotKeyModifiers", qint64(4096)}},
         {4294967295u, 4096, "Alt+Space"}},
        // Out of range, not cut to 32 bits (which would read 0xffffffff and 15).
        {{{"hotKeyKeyCode", qint64(-1)}, {"hotKeyModifiers", qint64(4096)}}, fallback},
        {{{"hotKeyKeyCode", tooLarge + 15}, {"hotKeyModifiers", qint64(4096)}}, fallback},
    };
    for (const auto& [values, expected] : cases) {
        defaults_.values = values;
        EXPECT_EQ(open()->selectedHotKey(), expected) << expected.displayName.toStdString();
    }
    defaults_.values = {{"hotKeyIdentifier", QString("custom")}, {"rewriteMode", QString("Casual")}};
    EXPECT_EQ(open()->hotKeyIdentifier(), "custom");
    EXPECT_EQ(open()->rewriteMode(), RewriteMode::casual);
    for (const FakeUserDefaults::Value& mode :
         {FakeUserDefaults::Value(QString("casual")), FakeUserDefaults::Value(qint64(3))}) {
        defaults_.values = {{"rewriteMode", mode}};
        EXPECT_EQ(open()->rewriteMode(), RewriteMode::improveClarity);
    }
}

TEST_F(SettingsStoreTest, PreferencesMapDecodesOnlyAnObjectOfStrings) {
    defaults_.values = {
        {"writingPreferencesByMode", QString(R"({"Casual":"short","Professional":"no jargon"})")}};
    auto store = open();
    EXPECT_EQ(store->writingPreferences(RewriteMode::casual), "short");
    EXPECT_EQ(store->writingPreferences(RewriteMode::professional), "no jargon");
    EXPECT_EQ(store->writingPreferences(RewriteMode::makeConcise), "");

    for (const char* broken :
         {R"({"Casual":"short","Professional":3})", R"(["Casual"])", "{\"Casual\":", "", "null"}) {
        defaults_.values = {{"writingPreferencesByMode", QString(broken)}};
        EXPECT_TRUE(open()->writingPreferencesByMode().isEmpty()) << broken;
    }
}

TEST_F(SettingsStoreTest, LegacyTextMigratesUntrimmedIntoTheStoredMode) {
    defaults_.values = {{"writingPreferences", QString("  Keep it warm\n")},
                        {"rewriteMode", QString("Professional")}};
    auto store = open();
    QMap<QString, QString> expected;
    expected.insert("Professional", "  Keep it warm\n");
    EXPECT_EQ(store->writingPreferencesByMode(), expected);
    EXPECT_EQ(store->writingPreferences(), "  Keep it warm\n");
    // Nothing is written back until the next change, and the old key stays.
    EXPECT_TRUE(defaults_.writes.empty());
    EXPECT_TRUE(defaults_.contains("writingPreferences"));

    store->setWritingPreferences("terse", RewriteMode::casual);
    EXPECT_EQ(storedPreferences(), (QJsonObject{{"Professional", "  Keep it warm\n"}, {"Casual", "terse"}}));
}

TEST_F(SettingsStoreTest, LegacyTextIsIgnoredWhenBlankOrWhenTheMapHasEntries) {
    defaults_.values = {{"writingPreferences", QString("   \n\t")}};
    EXPECT_TRUE(open()->writingPreferencesByMode().isEmpty());

    defaults_.values = {{"writingPreferences", QString("old")},
                        {"writingPreferencesByMode", QString(R"({"Casual":"new"})")}};
    auto store = open();
    EXPECT_EQ(store->writingPreferencesByMode().size(), 1);
    EXPECT_EQ(store->writingPreferences(RewriteMode::improveClarity), "");

    // A map that does not decode counts as empty, so the legacy text fills it.
    defaults_.values = {{"writingPreferences", QString("old")},
                        {"writingPreferencesByMode", QString("{oops")}};
    EXPECT_EQ(open()->writingPreferences(RewriteMode::improveClarity), "old");
}

TEST_F(SettingsStoreTest, BlankPreferencesRemoveTheModesEntryAndSaveTheMap) {
    defaults_.values = {
        {"writingPreferencesByMode", QString(R"({"Casual":"short","Professional":"formal"})")}};
    auto store = open();
    store->setWritingPreferences("   ", RewriteMode::casual);
    EXPECT_EQ(store->writingPreferences(RewriteMode::casual), "");
    EXPECT_EQ(storedPreferences(), (QJsonObject{{"Professional", "formal"}}));

    store->setRewriteMode(RewriteMode::makeConcise);
    store->setWritingPreferences(" bullet points \n");
    EXPECT_EQ(store->writingPreferences(RewriteMode::makeConcise), " bullet points \n");
    EXPECT_EQ(storedPreferences(),
              (QJsonObject{{"Professional", "formal"}, {"Make concise", " bullet points \n"}}));

    // Texts with quotes, back-slashes and other scripts survive the round trip.
    store->setWritingPreferences(QStringLiteral("say \"hi\" \\ 你好 🙂"), RewriteMode::casual);
    EXPECT_EQ(open()->writingPreferences(RewriteMode::casual), QStringLiteral("say \"hi\" \\ 你好 🙂"));
}

TEST_F(SettingsStoreTest, ChangesAreWrittenThroughAndAnnounced) {
    auto store = open();
    std::vector<SettingsStore::Field> announced;
    Subscription subscription =
        store->changed.connect([&](SettingsStore::Field field) { announced.push_back(field); });

    store->saveHotKey(HotKeyShortcut{15, 6144, "Ctrl+Alt+R"});
    store->setHotKeyIdentifier("control-option-r");
    store->setRewriteMode(RewriteMode::improvePrompt);
    store->markTestRewriteCompleted();

    EXPECT_EQ(defaults_.integer("hotKeyKeyCode"), 15);
    EXPECT_EQ(defaults_.integer("hotKeyModifiers"), 6144);
    EXPECT_EQ(defaults_.string("hotKeyDisplayName"), "Ctrl+Alt+R");
    EXPECT_EQ(defaults_.string("hotKeyIdentifier"), "control-option-r");
    EXPECT_EQ(defaults_.string("rewriteMode"), "Improve prompt");
    EXPECT_TRUE(defaults_.boolean("localIntelligenceWorkflowTestV1"));
    using Field = SettingsStore::Field;
    EXPECT_EQ(announced, (std::vector<Field>{Field::hotKeyKeyCode, Field::hotKeyModifiers,
                                             Field::hotKeyDisplayName, Field::hotKeyIdentifier,
                                             Field::rewriteMode, Field::hasCompletedTestRewrite}));

    const auto reopened = open();
    EXPECT_EQ(reopened->selectedHotKey(), (HotKeyShortcut{15, 6144, "Ctrl+Alt+R"}));
    EXPECT_EQ(reopened->hotKeyIdentifier(), "control-option-r");
    EXPECT_EQ(reopened->rewriteMode(), RewriteMode::improvePrompt);
    EXPECT_TRUE(reopened->hasCompletedTestRewrite());
}

TEST_F(SettingsStoreTest, LegacyHostedConfigurationIsRemovedOnlyWhenAsked) {
    defaults_.values = {{"baseURL", QString("https://example.invalid")},
                        {"model", QString("m")},
                        {"hasSavedAPIKey", true},
                        {"writingPreferences", QString("keep")}};
    open(false);
    EXPECT_TRUE(defaults_.contains("baseURL"));
    EXPECT_TRUE(credentials_.deletions.empty());

    for (CredentialDeletion outcome :
         {CredentialDeletion::deleted, CredentialDeletion::notFound, CredentialDeletion::unavailable}) {
        credentials_.outcome = outcome;
        credentials_.deletions.clear();
        const auto store = open(true);
        EXPECT_FALSE(defaults_.contains("baseURL"));
        EXPECT_FALSE(defaults_.contains("model"));
        EXPECT_FALSE(defaults_.contains("hasSavedAPIKey"));
        EXPECT_TRUE(defaults_.contains("writingPreferences"));
        ASSERT_EQ(credentials_.deletions.size(), 1u);
        EXPECT_EQ(credentials_.deletions[0].first, "app.parlune.provider-api-key");
        EXPECT_EQ(credentials_.deletions[0].second, "default");
        EXPECT_EQ(store->writingPreferences(), "keep");
    }
}

} // namespace
} // namespace parlune
