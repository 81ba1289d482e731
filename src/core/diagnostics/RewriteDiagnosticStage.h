#pragma once

#include <array>
#include <string_view>

namespace parlune {

// The stages of one rewrite as they appear in the diagnostics log.
enum class RewriteDiagnosticStage {
    capture,
    queued,
    deterministicRewrite,
    modelRewrite,
    staleTarget,
    replacement,
    completed,
    failed,
};

namespace rewrite_diagnostic_stage {

inline constexpr std::array<RewriteDiagnosticStage, 8> allCases{
    RewriteDiagnosticStage::capture,
    RewriteDiagnosticStage::queued,
    RewriteDiagnosticStage::deterministicRewrite,
    RewriteDiagnosticStage::modelRewrite,
    RewriteDiagnosticStage::staleTarget,
    RewriteDiagnosticStage::replacement,
    RewriteDiagnosticStage::completed,
    RewriteDiagnosticStage::failed,
};

// The name written after "stage=" ("capture", "modelRewrite", ...).
std::string_view rawValue(RewriteDiagnosticStage stage);

} // namespace rewrite_diagnostic_stage
} // namespace parlune
