#include "core/diagnostics/UserFacingErrorMessage.h"
#include "core/async/CancellationError.h"
#include "core/engine/LocalRewriteEngineError.h"
#include "core/hotkeys/HotKeyError.h"
#include "core/platform/PlatformTerms.h"
#include "core/selection/TextReplacementError.h"
#include "support/QtPrinters.h"
#include "support/ScopedPlatformTerms.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <utility>
#include <vector>

namespace parlune {
namespace {

using testing::ScopedPlatformTerms;

template <typename Error> QString viaPointer(Error error) {
    return UserFacingErrorMessage::message(std::make_exception_ptr(std::move(error)));
}

TEST(UserFacingErrorMessageTest, EverySelectionErrorHasItsSentence) {
    using Kind = TextReplacementError::Kind;
    const std::vector<std::pair<Kind, const char*>> expected = {
        {Kind::accessibilityPermissionMissing,
         "Enable Accessibility so Parlune can copy and paste selected text."},
        {Kind::noSelectedText, "Select text first, then press the Parlune shortcut."},
        {Kind::unableToReadFocusedElement,
         "Parlune cannot read text in this application. Try another editable text field."},
        {Kind::unableToCreateKeyboardEvent, "Parlune could not create the copy/paste shortcut. Try again."},
        {Kind::selectionChanged, "The selection changed before Parlune finished. Select it again and retry."},
        {Kind::unsupportedTarget, "Parlune cannot replace text in this application."},
        {Kind::replacementNotConfirmed,
         "Parlune could not confirm the replacement. Check the text field before trying again."},
    };
    for (const auto& [kind, text] : expected) {
        EXPECT_EQ(UserFacingErrorMessage::message(TextReplacementError(kind)), text);
        EXPECT_EQ(viaPointer(TextReplacementError(kind)), text);
    }
}

TEST(UserFacingErrorMessageTest, EveryEngineErrorHasItsSentenceInLinuxWords) {
    ScopedPlatformTerms linuxWords(PlatformTerms::linux());
    using Kind = LocalRewriteEngineError::Kind;
    const std::vector<std::pair<Kind, const char*>> expected = {
        {Kind::deviceNotEligible, "This computer does not support Parlune's on-device rewriting."},
        {Kind::appleIntelligenceNotEnabled,
         "Enable on-device intelligence in your desktop's settings to use Parlune."},
        {Kind::modelNotReady, "The on-device model is still preparing. Try again when it is ready."},
        {Kind::unsupportedLocale, "The on-device model does not support the current language or locale."},
        {Kind::selectionTooLong,
         "That selection is too long for the on-device model. Select a shorter passage."},
        {Kind::safetyRestricted, "The on-device model could not rewrite that selection."},
        {Kind::modelBusy, "The on-device model is temporarily busy. Try again in a moment."},
        {Kind::generationFailed, "The on-device model could not complete that rewrite. Try again."},
        {Kind::emptyRewrite, "The on-device model returned an empty rewrite. Try again."},
    };
    for (const auto& [kind, text] : expected) {
        EXPECT_EQ(UserFacingErrorMessage::message(LocalRewriteEngineError(kind)), text);
        EXPECT_EQ(viaPointer(LocalRewriteEngineError(kind)), text);
    }
}

TEST(UserFacingErrorMessageTest, OtherErrorsShowTheirOwnDescription) {
    EXPECT_EQ(viaPointer(CancellationError()), "The task was cancelled.");
    {
        ScopedPlatformTerms mac(PlatformTerms::macOS());
        EXPECT_EQ(viaPointer(HotKeyError::registrationFailed(-9878)),
                  "Could not register the hotkey. OSStatus -9878.");
    }
    EXPECT_EQ(UserFacingErrorMessage::message(std::runtime_error("The disk is full.")), "The disk is full.");
}

TEST(UserFacingErrorMessageTest, ErrorsWithoutADescriptionStillGetASentence) {
    const QString fallback = "The operation could not be completed.";
    EXPECT_EQ(UserFacingErrorMessage::message(std::exception_ptr()), fallback);
    EXPECT_EQ(UserFacingErrorMessage::message(std::make_exception_ptr(42)), fallback);
    EXPECT_EQ(UserFacingErrorMessage::message(std::runtime_error("")), fallback);
}

TEST(UserFacingErrorMessageTest, MessagesAreSentencesNamingTheProductOneWay) {
    std::vector<QString> messages;
    for (int i = 0; i <= static_cast<int>(TextReplacementError::Kind::replacementNotConfirmed); ++i) {
        messages.push_back(UserFacingErrorMessage::message(
            TextReplacementError(static_cast<TextReplacementError::Kind>(i))));
    }
    for (const PlatformTerms* terms : {&PlatformTerms::macOS(), &PlatformTerms::linux()}) {
        ScopedPlatformTerms scoped(*terms);
        for (int i = 0; i <= static_cast<int>(LocalRewriteEngineError::Kind::emptyRewrite); ++i) {
            messages.push_back(UserFacingErrorMessage::message(
                LocalRewriteEngineError(static_cast<LocalRewriteEngineError::Kind>(i))));
        }
    }
    for (const QString& text : messages) {
        ASSERT_FALSE(text.isEmpty());
        EXPECT_TRUE(text.endsWith(u'.')) << text.toStdString();
        EXPECT_TRUE(text.front().isUpper()) << text.toStdString();
        EXPECT_EQ(text.count(QStringLiteral("Parlune")),
                  text.count(QStringLiteral("parlune"), Qt::CaseInsensitive))
            << text.toStdString();
        EXPECT_FALSE(text.contains(QStringLiteral("  "))) << text.toStdString();
    }
}

} // namespace
} // namespace parlune
