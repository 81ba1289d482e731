#pragma once

#include "core/platform/LanguageModelFramework.h"

#include <QString>

#include <optional>

namespace parlune {

// The structured answer of the "Improve prompt" mode: one string property, generated under a
// schema so that the model cannot wrap it in chatter. The content itself is checked afterwards.
struct ImprovedPromptOutput {
    QString rewrittenPrompt;

    static const QString& propertyName();
    // The schema handed to constrained generation; built once.
    static const GenerationSchema& schema();

    // Reads the one property by name; none when the content lacks it.
    static std::optional<ImprovedPromptOutput> fromGeneratedContent(const GeneratedContent& content);
    GeneratedContent generatedContent() const;
};

} // namespace parlune
