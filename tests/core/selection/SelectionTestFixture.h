#pragma once

#include "RunTask.h"
#include "core/async/CancellationError.h"
#include "core/async/Clock.h"
#include "core/selection/AppCompatibilityRegistry.h"
#include "core/selection/ClipboardManager.h"
#include "core/selection/TextReplacementError.h"
#include "core/selection/TextSelectionReplacer.h"
#include "desktop/SimulatedAccessibility.h"
#include "desktop/SimulatedDesktop.h"
#include "desktop/SimulatedKeyboard.h"
#include "desktop/SimulatedPasteboard.h"
#include "desktop/SimulatedWorkspace.h"

#include <gtest/gtest.h>

#include <QElapsedTimer>

#include <memory>
#include <optional>
#include <stdexcept>
#include <stop_token>
#include <type_traits>

namespace parlune::test {

using Kind = TextReplacementError::Kind;

inline PasteboardItem pasteboardItem(std::vector<std::pair<QString, QByteArray>> values) {
    return PasteboardItem{std::move(values)};
}

// The user's clipboard before every test: two items, several types, bytes that are not text.
inline std::vector<PasteboardItem> userClipboard() {
    return {pasteboardItem({{QStringLiteral("text/html"), QByteArrayLiteral("<b>K\xc3\xa4se</b>")},
                            {SimulatedDesktop::plainTextType(), QByteArrayLiteral("K\xc3\xa4se")},
                            {QStringLiteral("application/x-color"), QByteArray("\x00\xff\x10\x80", 4)}}),
            pasteboardItem({{QStringLiteral("image/png"), QByteArray("\x89PNG\r\n\x1a\n\x00\x01", 10)}})};
}

// A desktop with an editor (two fields in one window) and a second application, the editor's
// first field focused with "world" selected, and a replacer over it.
class SelectionTest : public ::testing::Test {
protected:
    static constexpr ProcessId editorPid = 4101;
    static constexpr ProcessId otherPid = 4202;
    const QString editorId = QStringLiteral("org.example.Editor");

    SelectionTest() {
        desktop.launch(editorPid, editorId);
        const int window = desktop.openWindow(editorPid, QStringLiteral("Notes"));
        fieldA = desktop.addField(window, QStringLiteral("Hello world, again"));
        fieldB = desktop.addField(window, QStringLiteral("Second field"));
        desktop.launch(otherPid, QStringLiteral("org.example.Other"));
        otherField =
            desktop.addField(desktop.openWindow(otherPid, QStringLiteral("Other")), QStringLiteral("xyz"));
        desktop.select(otherField, {0, 3});
        desktop.focus(fieldA);
        desktop.select(fieldA, {6, 5});
        desktop.writePasteboardAsOther(userClipboard());
        makeReplacer(AppCompatibilityRegistry::defaultRegistry());
    }

    void makeReplacer(AppCompatibilityRegistry registry,
                      TextSelectionReplacer::Timing timing = TextSelectionReplacer::Timing{}) {
        replacer = std::make_unique<TextSelectionReplacer>(desktop.accessibility(), desktop.workspace(),
                                                           clipboard, desktop.keyboard(), std::move(registry),
                                                           SystemClock::shared(), timing);
    }
    void listEditor() { makeReplacer(AppCompatibilityRegistry({editorId})); }
    // Copy and paste timeouts no loaded machine reaches: a case that ends early ended for its own
    // reason, not because the time ran out.
    void makePatientReplacer() {
        TextSelectionReplacer::Timing timing;
        timing.copyTimeout = 20;
        timing.pasteConfirmationTimeout = 20;
        makeReplacer(AppCompatibilityRegistry::defaultRegistry(), timing);
    }

    // Makes the focused field opaque to accessibility reads, so its selection must be copied.
    void makeUnreadable(int fieldId) {
        desktop.field(fieldId)->selectedTextReadable = false;
        desktop.field(fieldId)->stringForRangeReadable = false;
    }

    CapturedSelection capture() { return runTask(replacer->capture({})); }

    // Runs the task and returns the kind of its TextReplacementError; fails the test otherwise.
    template <typename T> std::optional<Kind> failureOf(QCoro::Task<T>&& task) {
        try {
            runTask(std::move(task));
        } catch (const TextReplacementError& error) {
            return error.kind();
        } catch (const std::exception& error) {
            ADD_FAILURE() << "unexpected error: " << error.what();
            return std::nullopt;
        }
        ADD_FAILURE() << "expected a failure";
        return std::nullopt;
    }

    template <typename T> bool endsCancelled(QCoro::Task<T>&& task) {
        try {
            runTask(std::move(task));
        } catch (const CancellationError&) {
            return true;
        } catch (...) {
            return false;
        }
        return false;
    }

    bool pasteboardIsUsers() const { return desktop.pasteboardItems() == userClipboard(); }
    // Nothing but the set-up ever wrote the pasteboard.
    bool pasteboardUntouched() const { return desktop.pasteboardWrites().size() == 1 && pasteboardIsUsers(); }

    SimulatedDesktop desktop;
    ClipboardManager clipboard{desktop.pasteboard()};
    std::unique_ptr<TextSelectionReplacer> replacer;
    int fieldA = 0;
    int fieldB = 0;
    int otherField = 0;
};

inline double secondsOf(const QElapsedTimer& timer) {
    return static_cast<double>(timer.elapsed()) / 1000.0;
}

} // namespace parlune::test
