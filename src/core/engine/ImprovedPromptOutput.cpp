#include "core/engine/ImprovedPromptOutput.h"

namespace parlune {

const QString& ImprovedPromptOutput::propertyName() {
    static const QString name = QStringLiteral("rewrittenPrompt");
    return name;
}

const GenerationSchema& ImprovedPromptOutput::schema() {
    static const GenerationSchema schema{
        .typeName = QStringLiteral("ImprovedPromptOutput"),
        .typeDescription =
            QStringLiteral("A concise, actionable rewritten prompt with no preamble or wrapper."),
        .properties = {{
            .name = propertyName(),
            .description =
                QStringLiteral("Exactly four concise lines: Task:, Audience and focus:, Requirements:, "
                               "Output format:. Preserve supplied facts; never answer the task or invent "
                               "content."),
        }},
    };
    return schema;
}

std::optional<ImprovedPromptOutput>
ImprovedPromptOutput::fromGeneratedContent(const GeneratedContent& content) {
    const auto found = content.find(propertyName());
    if (found == content.end()) {
        return std::nullopt;
    }
    return ImprovedPromptOutput{found->second};
}

GeneratedContent ImprovedPromptOutput::generatedContent() const {
    return {{propertyName(), rewrittenPrompt}};
}

} // namespace parlune
