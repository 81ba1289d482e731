#include "core/engine/RewriteOutputValidator.h"

#include "core/engine/LocalRewriteEngineError.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <utility>

namespace parlune {

namespace {

const std::array<std::pair<QString, QString>, 2>& wrapperTags() {
    static const std::array<std::pair<QString, QString>, 2> tags{{
        {QStringLiteral("<reworded_text>"), QStringLiteral("</reworded_text>")},
        {QStringLiteral("<rewritten_text>"), QStringLiteral("</rewritten_text>")},
    }};
    return tags;
}

const std::array<QString, 4>& improvedPromptLabels() {
    static const std::array<QString, 4> labels{
        QStringLiteral("Task:"),
        QStringLiteral("Audience and focus:"),
        QStringLiteral("Requirements:"),
        QStringLiteral("Output format:"),
    };
    return labels;
}

[[noreturn]] void invalidPattern() {
    std::fputs("parlune: the improve-prompt label pattern does not compile\n", stderr);
    std::abort();
}

} // namespace

const QRegularExpression& RewriteOutputValidator::improvedPromptLabelPattern() {
    // (*ANY) makes every Unicode line break start a line for ^, not just the line feed.
    static const QRegularExpression pattern = [] {
        QRegularExpression compiled(
            QStringLiteral(
                "(*ANY)(?:^[\\t ]*(?:>\\s*)?(?:(?:[-+*]|\\d+[.)])[\\t ]+)?(?:#{1,6}[\\t ]+)?|[\\t \\r\\n]+)"
                "(?:\\*\\*|__)?(Task|Audience\\s+and\\s+focus|Requirements|Output\\s+format)"
                "\\s*(?:(?:\\*\\*|__)\\s*:|:\\s*(?:\\*\\*|__)?)"),
            QRegularExpression::CaseInsensitiveOption | QRegularExpression::MultilineOption |
                QRegularExpression::UseUnicodePropertiesOption);
        if (!compiled.isValid()) {
            invalidPattern();
        }
        compiled.optimize();
        return compiled;
    }();
    return pattern;
}

QString RewriteOutputValidator::cleanedRewrite(const QString& output, const QString& source) {
    QString cleaned = output.trimmed();
    const QString trimmedSource = source.trimmed();
    for (const auto& [opening, closing] : wrapperTags()) {
        if (!cleaned.startsWith(opening) || trimmedSource.startsWith(opening)) {
            continue;
        }
        cleaned = cleaned.sliced(opening.size()).trimmed();
        if (cleaned.endsWith(closing)) {
            cleaned = cleaned.first(cleaned.size() - closing.size()).trimmed();
        }
        return cleaned;
    }
    return cleaned;
}

std::optional<int> RewriteOutputValidator::improvedPromptLabelIndex(const QString& label) {
    const QString words = label.simplified().toLower();
    if (words == QLatin1String("task")) {
        return 0;
    }
    if (words == QLatin1String("audience and focus")) {
        return 1;
    }
    if (words == QLatin1String("requirements")) {
        return 2;
    }
    if (words == QLatin1String("output format")) {
        return 3;
    }
    return std::nullopt;
}

QString RewriteOutputValidator::validatedImprovedPrompt(const QString& output, const QString& source) {
    using Kind = LocalRewriteEngineError::Kind;
    const QString cleaned = cleanedRewrite(output, source);
    const std::array<QString, 4>& labels = improvedPromptLabels();

    std::vector<QRegularExpressionMatch> matches;
    QRegularExpressionMatchIterator found = improvedPromptLabelPattern().globalMatch(cleaned);
    while (found.hasNext()) {
        matches.push_back(found.next());
        if (matches.size() > labels.size()) {
            break; // already too many to be valid
        }
    }
    if (matches.size() != labels.size()) {
        throw LocalRewriteEngineError(Kind::generationFailed);
    }
    for (std::size_t i = 0; i < matches.size(); ++i) {
        if (improvedPromptLabelIndex(matches[i].captured(1)) != static_cast<int>(i)) {
            throw LocalRewriteEngineError(Kind::generationFailed);
        }
    }

    QStringList lines;
    for (std::size_t i = 0; i < matches.size(); ++i) {
        const qsizetype start = matches[i].capturedEnd(0);
        const qsizetype end = i + 1 < matches.size() ? matches[i + 1].capturedStart(0) : cleaned.size();
        const QString content = cleaned.sliced(start, end - start).simplified();
        if (content.isEmpty()) {
            throw LocalRewriteEngineError(Kind::emptyRewrite);
        }
        lines.append(labels[i] + QLatin1Char(' ') + content);
    }
    return lines.join(QLatin1Char('\n'));
}

} // namespace parlune
