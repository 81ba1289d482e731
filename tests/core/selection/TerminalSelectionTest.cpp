#include "SelectionTestFixture.h"
#include "core/platform/PrimarySelection.h"
#include "core/platform/UserDefaults.h"
#include "support/FakeUserDefaults.h"

namespace parlune::test {
namespace {

// The primary selection as one process holds it.
class HeldPrimarySelection final : public PrimarySelection {
public:
    ProcessId holder = 0;
    QString text;
    QCoro::Task<std::optional<QString>> textHeldBy(ProcessId process) override {
        co_return process == holder ? std::optional<QString>(text) : std::nullopt;
    }
};

// Records every chord; a terminal's own copy chord does what Control+C does in the simulation.
class RecordingKeyboard final : public KeyboardEvents {
public:
    explicit RecordingKeyboard(KeyboardEvents& inner) : inner_(inner) {}
    std::vector<KeyChord> chords;
    QCoro::Task<bool> sendCommandKey(std::uint16_t keyCode, ProcessId target,
                                     std::stop_token token) override {
        co_return co_await sendChord(KeyChord{keyCode, KeyChord::command}, target, std::move(token));
    }
    QCoro::Task<bool> sendChord(KeyChord chord, ProcessId target, std::stop_token token) override {
        chords.push_back(chord);
        co_return co_await inner_.sendCommandKey(chord.keyCode, target, std::move(token));
    }

private:
    KeyboardEvents& inner_;
};

constexpr KeyChord controlShiftC{KeyboardEvents::keyCodeC, KeyChord::command | KeyChord::shift};

TEST(AppCompatibilityRegistryTest, TerminalsAreKnownWhateverTheirSpellingAndTheUsersListAddsMore) {
    const AppCompatibilityRegistry shipped = AppCompatibilityRegistry::defaultRegistry();
    const auto xterm = shipped.chordsFor(QStringLiteral("XTerm"));
    EXPECT_EQ(xterm.copy, std::nullopt) << "xterm keeps its selection in PRIMARY only";
    EXPECT_EQ(xterm.paste, std::nullopt);
    EXPECT_EQ(shipped.chordsFor(QStringLiteral("gnome-terminal-server")).copy, controlShiftC);
    EXPECT_EQ(shipped.chordsFor(QStringLiteral("KONSOLE")).paste, std::nullopt);
    // Neither a prefix nor an unknown program is a terminal.
    EXPECT_EQ(shipped.chordsFor(QStringLiteral("xterminal-notes")).paste,
              (KeyChord{KeyboardEvents::keyCodeV, KeyChord::command}));
    EXPECT_EQ(shipped.chordsFor(std::nullopt).copy, (KeyChord{KeyboardEvents::keyCodeC, KeyChord::command}));

    testing::FakeUserDefaults defaults;
    defaults.setString(QString::fromLatin1(AppCompatibilityRegistry::terminalApplicationsKey),
                       QStringLiteral(" Cool-Retro-Term , ,myshell"));
    const QStringList listed = AppCompatibilityRegistry::terminalsFromSettings(defaults);
    EXPECT_EQ(listed, (QStringList{QStringLiteral("Cool-Retro-Term"), QStringLiteral("myshell")}));
    const AppCompatibilityRegistry registry({}, listed);
    EXPECT_EQ(registry.chordsFor(QStringLiteral("cool-retro-term")),
              (AppCompatibilityRegistry::ApplicationChords{std::nullopt, std::nullopt}));
    EXPECT_NE(registry, shipped);
}

class TerminalSelectionTest : public SelectionTest {
protected:
    static constexpr ProcessId terminalPid = 4303;

    void openTerminal(const QString& className) {
        desktop.launch(terminalPid, className);
        terminalField = desktop.addField(desktop.openWindow(terminalPid, QStringLiteral("shell")),
                                         QStringLiteral("$ sleep 100"));
        desktop.focus(terminalField);
        desktop.select(terminalField, {2, 5});
        makeUnreadable(terminalField);
        desktop.field(terminalField)->rangeReadable = false;
        keys = std::make_unique<RecordingKeyboard>(desktop.keyboard());
        replacer = std::make_unique<TextSelectionReplacer>(
            desktop.accessibility(), desktop.workspace(), clipboard, *keys,
            AppCompatibilityRegistry::defaultRegistry(), SystemClock::shared());
        replacer->setPrimarySelection(&primary);
    }

    HeldPrimarySelection primary;
    std::unique_ptr<RecordingKeyboard> keys;
    int terminalField = 0;
};

// Even a terminal that copies with Control+Shift+C gets no key where the desktop has a primary
// selection: with nothing selected that chord reaches the program running in it.
TEST_F(TerminalSelectionTest, TerminalSelectionComesFromPrimaryWithoutAnyKeyAndIsNeverReplaced) {
    openTerminal(QStringLiteral("Gnome-terminal"));
    primary.holder = terminalPid;
    primary.text = QStringLiteral("sleep");

    const CapturedSelection selection = capture();
    EXPECT_EQ(selection.text(), QStringLiteral("sleep"));
    EXPECT_EQ(selection.applicationProcessIdentifier(), terminalPid);
    runTask(replacer->validate(selection, {}));

    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("wake"), selection, {})), Kind::unsupportedTarget);
    EXPECT_TRUE(keys->chords.empty()) << "a terminal never gets a key from us";
    EXPECT_TRUE(pasteboardUntouched());
    EXPECT_EQ(desktop.field(terminalField)->text, QStringLiteral("$ sleep 100"));
}

TEST_F(TerminalSelectionTest, PrimaryHeldByAnotherProgramIsNotTakenForTheTerminalsSelection) {
    openTerminal(QStringLiteral("URxvt"));
    primary.holder = otherPid;
    primary.text = QStringLiteral("stale");
    EXPECT_EQ(failureOf(replacer->capture({})), Kind::noSelectedText);
    EXPECT_TRUE(keys->chords.empty());

    replacer->setPrimarySelection(nullptr);
    primary.holder = terminalPid;
    EXPECT_EQ(failureOf(replacer->capture({})), Kind::noSelectedText);
    EXPECT_TRUE(pasteboardUntouched());
}

TEST_F(TerminalSelectionTest, WithoutPrimaryAVteTerminalIsCopiedWithControlShiftCAndTheClipboardComesBack) {
    openTerminal(QStringLiteral("Gnome-terminal"));
    replacer->setPrimarySelection(nullptr);
    const CapturedSelection selection = capture();
    EXPECT_EQ(selection.text(), QStringLiteral("sleep"));
    ASSERT_EQ(keys->chords.size(), 1u);
    EXPECT_EQ(keys->chords.front(), controlShiftC);
    EXPECT_TRUE(pasteboardIsUsers());
    EXPECT_EQ(failureOf(replacer->replace(QStringLiteral("wake"), selection, {})), Kind::unsupportedTarget);
    EXPECT_EQ(keys->chords.size(), 1u) << "no validation copy and no paste";
}

} // namespace
} // namespace parlune::test
