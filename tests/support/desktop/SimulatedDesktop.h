#pragma once

#include "core/platform/Pasteboard.h"
#include "core/platform/ProcessId.h"
#include "core/platform/TextRange.h"

#include <QByteArray>
#include <QObject>
#include <QString>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

namespace parlune::test {

class SimulatedAccessibility;
class SimulatedKeyboard;
class SimulatedPasteboard;
class SimulatedWorkspace;

// A text field of a simulated application. Text and ranges are UTF-16, as accessibility counts.
struct SimulatedField {
    int id = 0;
    ProcessId owner = 0;
    int window = 0;
    QString text;
    TextRange selection;
    // What accessibility can read and write of it.
    bool selectedTextReadable = true;
    bool rangeReadable = true;
    bool stringForRangeReadable = true;
    bool settable = true;

    QString selectedText() const { return text.mid(selection.location, selection.length); }
};

struct SimulatedWindow {
    int id = 0;
    ProcessId owner = 0;
    QString title;
    int focusedField = 0; // 0: none
};

// A simulated application with its fault switches.
struct SimulatedApplication {
    ProcessId pid = 0;
    std::optional<QString> identifier;
    int activeWindow = 0;
    bool exposesFocusedElement = true; // false: accessibility sees no focused element at all
    bool processReadable = true;       // whether accessibility can tell an element's process
    bool ignoresCopy = false;
    bool ignoresPaste = false;
    bool refusesAccessibilityWrites = false; // setting the selected text reports an error
    bool dropsAccessibilityWrites = false;   // reports success but leaves the text as it was
    bool pasteLeavesSelection = false;       // pasted text stays selected instead of a caret after it
};

// Who wrote the pasteboard.
enum class PasteboardWriter { program, application, other };

struct PasteboardWrite {
    std::int64_t changeCount = 0;
    PasteboardWriter writer = PasteboardWriter::other;
    ProcessId application = 0; // for application writes
    std::vector<PasteboardItem> items;
};

// Text that arrived in a field, by accessibility write or by paste.
struct FieldInsertion {
    int field = 0;
    QString text;
    bool byPaste = false;
};

struct SentKey {
    std::uint16_t keyCode = 0;
    ProcessId target = 0;
};

// A small desktop in memory, driven through real port implementations: applications with
// windows and text fields, keyboard focus, a pasteboard whose change count every writer raises,
// synthetic command keys that act after a delay, and switches for the ways real applications and
// users get in the way. Main thread only; its delays are real (short) timers.
//
//   SimulatedDesktop desktop;
//   desktop.launch(42, QStringLiteral("org.example.Editor"));
//   const int field = desktop.addField(desktop.openWindow(42, QStringLiteral("Notes")), QStringLiteral("Hi
//   all")); desktop.focus(field); desktop.select(field, {3, 3}); ClipboardManager
//   clipboard(desktop.pasteboard()); TextSelectionReplacer replacer(desktop.accessibility(),
//   desktop.workspace(), clipboard, desktop.keyboard(),
//                                  AppCompatibilityRegistry::defaultRegistry(), SystemClock::shared());
class SimulatedDesktop {
public:
    SimulatedDesktop();
    ~SimulatedDesktop();
    SimulatedDesktop(const SimulatedDesktop&) = delete;
    SimulatedDesktop& operator=(const SimulatedDesktop&) = delete;

    // The ports, to hand to the logic under test.
    SimulatedAccessibility& accessibility() { return *accessibility_; }
    SimulatedWorkspace& workspace() { return *workspace_; }
    SimulatedPasteboard& pasteboard() { return *pasteboard_; }
    SimulatedKeyboard& keyboard() { return *keyboard_; }

    // MARK: applications, windows, fields, focus
    SimulatedApplication& launch(ProcessId pid, std::optional<QString> identifier);
    void quit(ProcessId pid);
    int openWindow(ProcessId pid, const QString& title);
    int addField(int window, const QString& text);
    SimulatedApplication* application(ProcessId pid);
    SimulatedField* field(int id);
    const SimulatedField* field(int id) const;
    void select(int fieldId, TextRange range);
    // Makes the field's application frontmost, its window active and the field focused.
    void focus(int fieldId);
    // Brings an application to the front, leaving its own focused field as it was.
    void activate(ProcessId pid);
    // No application in front (for example the desktop itself).
    void clearFrontmost();
    std::optional<ProcessId> frontmost() const { return frontmost_; }
    // The focused field of an application's active window; 0 when none.
    int focusedFieldOf(ProcessId pid) const;
    // The field with keyboard focus on the whole desktop; 0 when none.
    int focusedField() const;

    // Accessibility keeps reporting focus in this field (0: off), as when focus events lag behind
    // a window switch.
    int staleAccessibilityFocus = 0;

    // Runs (once, then clears itself) at the start of the next accessibility query: other
    // processes act at any moment, also between two calls that never yield to the event loop.
    std::function<void()> beforeNextAccessibilityQuery;
    void runAccessibilityQueryHook();

    // MARK: accessibility permission
    bool trusted = true;
    bool grantOnPrompt = false; // what the permission prompt leads to
    int promptCount = 0;

    // MARK: pasteboard
    const std::vector<PasteboardItem>& pasteboardItems() const { return pasteboardItems_; }
    std::int64_t changeCount() const { return changeCount_; }
    // Replaces the contents as someone other than the program or a target application.
    void writePasteboardAsOther(std::vector<PasteboardItem> items);
    // Called by the pasteboard port and by applications.
    void writePasteboard(std::vector<PasteboardItem> items, PasteboardWriter writer,
                         ProcessId application = 0);
    void clearPasteboard(PasteboardWriter writer);
    const std::vector<PasteboardWrite>& pasteboardWrites() const { return writes_; }
    // Runs after each write by the program, for faults that must land between two of its steps.
    std::function<void(const std::vector<PasteboardItem>&)> onProgramWrite;
    bool reportsFetches = false;
    // Change counts whose contents an application fetched by pasting.
    const std::set<std::int64_t>& fetchedChangeCounts() const { return fetched_; }
    void recordFetch() { fetched_.insert(changeCount_); }
    std::optional<QString> pasteboardString() const;
    static QString plainTextType();
    // Types that fail to read back (as with a promised type whose owner is gone).
    std::set<QString> unreadableTypes;

    // MARK: synthetic keys
    int keyDelayMs = 2;            // from sending a command key to its effect
    int modifierReleaseWaitMs = 0; // the port's wait for the user to let go of the shortcut
    bool keyboardAvailable = true; // false: key events cannot be made
    // Real X11 input goes to whatever has focus when the key arrives; with this set the keys act on
    // the frontmost application's focused field instead of the target process's.
    bool keysFollowDesktopFocus = false;
    // Runs when a command key is sent, before it takes effect.
    std::function<void(const SentKey&)> onCommandKey;
    const std::vector<SentKey>& sentKeys() const { return sentKeys_; }
    void sendCommandKey(std::uint16_t keyCode, ProcessId target);

    // MARK: workspace
    bool opensUrls = true;
    std::vector<QString> openedUrls;
    std::vector<QString> openedApplications;

    // MARK: audit
    const std::vector<FieldInsertion>& insertions() const { return insertions_; }
    void recordInsertion(int fieldId, const QString& text, bool byPaste);
    void clearLogs();

    // Runs `work` after `ms` milliseconds, unless the desktop is gone by then.
    void after(int ms, std::function<void()> work);

private:
    void deliverCommandKey(SentKey key);

    std::unique_ptr<SimulatedAccessibility> accessibility_;
    std::unique_ptr<SimulatedWorkspace> workspace_;
    std::unique_ptr<SimulatedPasteboard> pasteboard_;
    std::unique_ptr<SimulatedKeyboard> keyboard_;
    QObject timerContext_;

    std::map<ProcessId, SimulatedApplication> applications_;
    std::map<int, SimulatedWindow> windows_;
    std::map<int, SimulatedField> fields_;
    int nextId_ = 1;
    std::optional<ProcessId> frontmost_;

    std::vector<PasteboardItem> pasteboardItems_;
    std::int64_t changeCount_ = 1;
    std::vector<PasteboardWrite> writes_;
    std::set<std::int64_t> fetched_;

    std::vector<SentKey> sentKeys_;
    std::vector<FieldInsertion> insertions_;
};

} // namespace parlune::test
