#include "core/diagnostics/UserFacingErrorMessage.h"

#include "core/engine/LocalRewriteEngineError.h"
#include "core/platform/PlatformTerms.h"
#include "core/selection/TextReplacementError.h"

#include <string>
#include <string_view>

namespace parlune {

namespace {

// Shown for an error that carries no description of its own.
constexpr std::string_view undescribedError = "The operation could not be completed.";

std::string_view selectionMessage(TextReplacementError::Kind kind) {
    using Kind = TextReplacementError::Kind;
    switch (kind) {
    case Kind::accessibilityPermissionMissing:
        return "Enable Accessibility so Parlune can copy and paste selected text.";
    case Kind::noSelectedText:
        return "Select text first, then press the Parlune shortcut.";
    case Kind::unableToReadFocusedElement:
        return "Parlune cannot read text in this application. Try another editable text field.";
    case Kind::unableToCreateKeyboardEvent:
        return "Parlune could not create the copy/paste shortcut. Try again.";
    case Kind::selectionChanged:
        return "The selection changed before Parlune finished. Select it again and retry.";
    case Kind::unsupportedTarget:
        return "Parlune cannot replace text in this application.";
    case Kind::replacementNotConfirmed:
        return "Parlune could not confirm the replacement. Check the text field before trying again.";
    }
    return undescribedError;
}

QString text(std::string_view utf8) {
    return QString::fromUtf8(utf8.data(), static_cast<qsizetype>(utf8.size()));
}

std::string_view engineMessage(LocalRewriteEngineError::Kind kind, std::string& composed) {
    using Kind = LocalRewriteEngineError::Kind;
    const PlatformTerms& terms = PlatformTerms::current();
    switch (kind) {
    case Kind::deviceNotEligible:
        return terms.deviceNotSupportedDescription;
    case Kind::appleIntelligenceNotEnabled:
        composed = "Enable on-device intelligence in ";
        composed.append(terms.systemSettings).append(" to use Parlune.");
        return composed;
    case Kind::modelNotReady:
        return "The on-device model is still preparing. Try again when it is ready.";
    case Kind::unsupportedLocale:
        return "The on-device model does not support the current language or locale.";
    case Kind::selectionTooLong:
        return "That selection is too long for the on-device model. Select a shorter passage.";
    case Kind::preferencesTooLong:
        return "The writing preferences for this mode are too long for the on-device model. Shorten them in "
               "Parlune Settings.";
    case Kind::safetyRestricted:
        return "The on-device model could not rewrite that selection.";
    case Kind::modelBusy:
        return "The on-device model is temporarily busy. Try again in a moment.";
    case Kind::generationFailed:
        return "The on-device model could not complete that rewrite. Try again.";
    case Kind::emptyRewrite:
        return "The on-device model returned an empty rewrite. Try again.";
    }
    return undescribedError;
}

} // namespace

QString UserFacingErrorMessage::message(const std::exception& error) {
    if (const auto* selection = dynamic_cast<const TextReplacementError*>(&error)) {
        return text(selectionMessage(selection->kind()));
    }
    if (const auto* engine = dynamic_cast<const LocalRewriteEngineError*>(&error)) {
        std::string composed;
        return text(engineMessage(engine->kind(), composed));
    }
    const char* description = error.what();
    if (description == nullptr || *description == '\0') {
        return text(undescribedError);
    }
    return QString::fromUtf8(description);
}

QString UserFacingErrorMessage::detail(const std::exception_ptr& error) {
    if (!error) {
        return {};
    }
    try {
        std::rethrow_exception(error);
    } catch (const LocalRewriteEngineError& engine) {
        return engine.detail();
    } catch (...) {
        return {};
    }
}

QString UserFacingErrorMessage::message(const std::exception_ptr& error) {
    if (!error) {
        return text(undescribedError);
    }
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& known) {
        return message(known);
    } catch (...) {
        return text(undescribedError);
    }
}

} // namespace parlune
