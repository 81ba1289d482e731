#include "core/shell/WorkflowTestPolicy.h"

#include "core/async/CancellationError.h"
#include "core/diagnostics/UserFacingErrorMessage.h"
#include "core/engine/LocalRewriteEngineError.h"
#include "core/pipeline/RewriteCoordinator.h"
#include "core/selection/TextReplacementError.h"

namespace parlune {

QString WorkflowTestPolicy::accessibilityInstruction(const PlatformTerms& terms) {
    return QString::fromUtf8(terms.accessibilityEnableInstruction.data(),
                             static_cast<qsizetype>(terms.accessibilityEnableInstruction.size()));
}

bool WorkflowTestPolicy::isByteDifferent(const QString& source, const QString& result) {
    return source.toUtf8() != result.toUtf8();
}

QString WorkflowTestPolicy::workflowErrorCategory(const std::exception_ptr& error) {
    const QString unknown = QStringLiteral("workflow_test_failed");
    if (!error) {
        return unknown;
    }
    // The shortcut path's categories, except for a few codes that name the test's own steps.
    try {
        std::rethrow_exception(error);
    } catch (const TextReplacementError& replacementError) {
        switch (replacementError.kind()) {
        case TextReplacementError::Kind::unableToReadFocusedElement:
            return QStringLiteral("capture_failed");
        case TextReplacementError::Kind::selectionChanged:
            return QStringLiteral("selection_changed");
        default:
            break;
        }
    } catch (const LocalRewriteEngineError& engineError) {
        if (engineError.kind() == LocalRewriteEngineError::Kind::appleIntelligenceNotEnabled) {
            return QStringLiteral("apple_intelligence_disabled");
        }
    } catch (const CancellationError&) {
    } catch (...) {
        return unknown;
    }
    return RewriteCoordinator::errorCategory(error);
}

QString WorkflowTestPolicy::failureMessage(const std::exception_ptr& error) {
    if (!error) {
        return QString::fromUtf8(failedMessage);
    }
    try {
        std::rethrow_exception(error);
    } catch (const TextReplacementError& replacementError) {
        return UserFacingErrorMessage::message(replacementError);
    } catch (const LocalRewriteEngineError& engineError) {
        return UserFacingErrorMessage::message(engineError);
    } catch (const CancellationError&) {
        return QString::fromUtf8(cancelledMessage);
    } catch (...) {
        return QString::fromUtf8(failedMessage);
    }
}

} // namespace parlune
