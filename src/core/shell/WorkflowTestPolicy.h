#pragma once

#include "core/modes/RewriteMode.h"
#include "core/platform/PlatformTerms.h"

#include <QString>

#include <exception>

namespace parlune {

// The fixed parts of the workflow test: its sample, its mode, what counts as a change, the
// diagnostics category of each failure and the sentences it shows.
class WorkflowTestPolicy {
public:
    WorkflowTestPolicy() = delete;

    static constexpr const char* introductorySample =
        "Write a clear prompt asking a tutor to explain a difficult topic step by step.";
    // The test always rewrites in this mode, whatever mode the user chose.
    static constexpr RewriteMode introductoryMode = RewriteMode::improvePrompt;

    static constexpr const char* emptySampleMessage = "Enter sample text before running the workflow test.";
    static constexpr const char* runningMessage = "Running the on-device workflow…";
    static constexpr const char* targetUnavailableMessage =
        "Parlune could not focus its workflow test field. Keep Settings open and try again.";
    static constexpr const char* unchangedMessage =
        "The model did not change the setup sample. Nothing was "
        "replaced, and setup is not complete. Run the test again.";
    // The same outcome once an earlier run has completed setup, which stays complete.
    static constexpr const char* unchangedAfterSetupMessage =
        "The model did not change the sample, so nothing was replaced. Setup is still complete; run the test "
        "again to check the workflow once more.";
    static constexpr const char* passedMessage = "Workflow test passed. The sample was rewritten in place.";
    static constexpr const char* cancelledMessage =
        "The local workflow test was cancelled. Run it again when you're ready.";
    static constexpr const char* failedMessage = "The local workflow test could not finish. Try again.";

    // How to grant accessibility control, then come back to the test.
    static QString accessibilityInstruction(const PlatformTerms& terms = PlatformTerms::current());

    // Whether the UTF-8 bytes differ anywhere: no trimming, case folding or normalisation, so a
    // change of trailing white space alone is a change.
    static bool isByteDifferent(const QString& source, const QString& result);

    // The category written after "error=" for a failure of the test. Differs from the shortcut
    // path's categories in a few codes.
    static QString workflowErrorCategory(const std::exception_ptr& error);

    // The sentence shown for a failure of the capture, the rewrite or the replacement.
    static QString failureMessage(const std::exception_ptr& error);
};

} // namespace parlune
