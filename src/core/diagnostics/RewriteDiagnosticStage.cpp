#include "core/diagnostics/RewriteDiagnosticStage.h"

namespace parlune::rewrite_diagnostic_stage {

std::string_view rawValue(RewriteDiagnosticStage stage) {
    switch (stage) {
    case RewriteDiagnosticStage::capture:
        return "capture";
    case RewriteDiagnosticStage::queued:
        return "queued";
    case RewriteDiagnosticStage::deterministicRewrite:
        return "deterministicRewrite";
    case RewriteDiagnosticStage::modelRewrite:
        return "modelRewrite";
    case RewriteDiagnosticStage::staleTarget:
        return "staleTarget";
    case RewriteDiagnosticStage::replacement:
        return "replacement";
    case RewriteDiagnosticStage::completed:
        return "completed";
    case RewriteDiagnosticStage::failed:
        return "failed";
    }
    return {};
}

} // namespace parlune::rewrite_diagnostic_stage
