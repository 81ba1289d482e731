#pragma once

#include "InterceptedKeyboard.h"
#include "NoAccessibilityBus.h"
#include "TaskRunner.h"
#include "core/async/Clock.h"
#include "core/platform/KeyboardEvents.h"
#include "core/selection/ClipboardManager.h"
#include "core/selection/TextReplacementError.h"
#include "core/selection/TextSelectionReplacer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace parlune::test {

// The path under test over a desktop's real ports: no accessibility bus, so the selection is
// copied, and the keys sent recorded on the way.
struct CopyPastePath {
    CopyPastePath(Workspace& workspace, Pasteboard& pasteboard, KeyboardEvents& keyboard)
        : keys(keyboard), clipboard(pasteboard),
          replacer(accessibility, workspace, clipboard, keys, AppCompatibilityRegistry::defaultRegistry(),
                   SystemClock::shared()) {}

    NoAccessibilityBus accessibility;
    InterceptedKeyboard keys;
    ClipboardManager clipboard;
    TextSelectionReplacer replacer;
};

// What each desktop's clipboard tests hold: the path, shorthands into it, and that desktop's editor.
template <typename Editor> struct CopyPasteParts {
    void makePath(Workspace& workspace, Pasteboard& pasteboard, KeyboardEvents& keyboard) {
        path = std::make_unique<CopyPastePath>(workspace, pasteboard, keyboard);
        keys = &path->keys;
        clipboard = &path->clipboard;
        replacer = &path->replacer;
    }
    CapturedSelection capture() { return finish(replacer->capture({})); }

    std::unique_ptr<CopyPastePath> path;
    InterceptedKeyboard* keys = nullptr;
    ClipboardManager* clipboard = nullptr;
    TextSelectionReplacer* replacer = nullptr;
    std::unique_ptr<Editor> editor;
};

// The clipboard path's checks that every real desktop passes alike, with that desktop's own editor
// (open, select, savedText, pid) and clipboard clients; each desktop's test then checks its own
// clipboard. Call them under ASSERT_NO_FATAL_FAILURE.

// Opens "alpha beta gamma", selects "beta" and captures it through the synthetic copy.
template <typename Editor>
void captureBeta(Editor& editor, TextSelectionReplacer& replacer,
                 std::optional<CapturedSelection>& selection) {
    ASSERT_TRUE(editor.open(QStringLiteral("alpha beta gamma")));
    editor.select(6, 4);
    selection.emplace(finish(replacer.capture({})));
    ASSERT_EQ(selection->text(), QStringLiteral("beta"));
    EXPECT_EQ(selection->applicationProcessIdentifier(), editor.pid());
}

// Captures "beta", pastes a replacement with accents and an emoji in its place, and after each
// step checks with `expectClipboardBack` that the user's clipboard was put back.
template <typename Editor>
void captureAndPasteInPlace(Editor& editor, TextSelectionReplacer& replacer,
                            std::optional<CapturedSelection>& selection,
                            const std::function<void()>& expectClipboardBack) {
    ASSERT_NO_FATAL_FAILURE(captureBeta(editor, replacer, selection));
    expectClipboardBack();
    finish(replacer.replace(QStringLiteral("D\u00c9LTA \U0001F600"), *selection, {}));
    EXPECT_EQ(editor.savedText(), QStringLiteral("alpha D\u00c9LTA \U0001F600 gamma"));
    expectClipboardBack();
}

// Replaces the selection while `write` puts another client's words on the clipboard just after
// Control+V; whether the paste was confirmed does not matter, the clipboard afterwards does.
inline void replaceWhileAnotherClientWrites(TextSelectionReplacer& replacer,
                                            const CapturedSelection& selection,
                                            std::function<void(std::uint16_t)>& afterKey,
                                            const std::function<void()>& write) {
    afterKey = [&write](std::uint16_t key) {
        if (key == KeyboardEvents::keyCodeV) {
            write();
        }
    };
    try {
        finish(replacer.replace(QStringLiteral("DELTA"), selection, {}));
    } catch (const TextReplacementError&) {
    }
    afterKey = nullptr;
}

} // namespace parlune::test
