#include "core/engine/DeterministicTextNormalizer.h"

#include "core/engine/GraphemeCount.h"

#include <QRegularExpression>

namespace parlune {

namespace {

// \s and \S follow Unicode white space, not just ASCII, like the rest of the text handling.
QRegularExpression compiled(const QString& pattern) {
    return QRegularExpression(pattern, QRegularExpression::UseUnicodePropertiesOption);
}

const QRegularExpression& innerSpaceRunPattern() {
    static const QRegularExpression pattern = compiled(QStringLiteral("(?<=\\S)[ \\t]{2,}(?=\\S)"));
    return pattern;
}

const QRegularExpression& spaceBeforePunctuationPattern() {
    static const QRegularExpression pattern = compiled(QStringLiteral("[ \\t]+([.,])"));
    return pattern;
}

const QRegularExpression& letterOrDigitRunPattern() {
    static const QRegularExpression pattern = compiled(QStringLiteral("[\\p{L}\\p{N}]+"));
    return pattern;
}

bool isAscii(const QString& text) {
    for (QChar unit : text) {
        if (unit.unicode() > 0x7F) {
            return false;
        }
    }
    return true;
}

constexpr std::int64_t maximumTrivialCharacters = 64;
constexpr int maximumTrivialWords = 2;

} // namespace

std::optional<QString> DeterministicTextNormalizer::rewriteIfNeeded(const QString& text) {
    QString normalized = text.normalized(QString::NormalizationForm_C);

    if (innerSpaceRunPattern().isValid()) {
        // Indentation and trailing spaces are left alone: only runs between two visible characters.
        normalized.replace(innerSpaceRunPattern(), QStringLiteral(" "));
    }
    // Spacing before punctuation is a convention in some languages (French " ."), so only pure
    // ASCII text loses it.
    if (isAscii(text) && spaceBeforePunctuationPattern().isValid()) {
        normalized.replace(spaceBeforePunctuationPattern(), QStringLiteral("\\1"));
    }

    if (normalized == text) {
        return std::nullopt;
    }
    return normalized;
}

std::optional<QString> DeterministicTextNormalizer::rewriteIfTriviallySafe(const QString& text) {
    QString candidate = text.normalized(QString::NormalizationForm_C);
    if (candidate == text) {
        // Already composed: only a spacing repair of plain ASCII can stand in for the model.
        if (!isAscii(text)) {
            return std::nullopt;
        }
        std::optional<QString> repaired = rewriteIfNeeded(text);
        if (!repaired) {
            return std::nullopt;
        }
        candidate = std::move(*repaired);
    }

    if (graphemeClusterCount(candidate) > maximumTrivialCharacters) {
        return std::nullopt;
    }
    if (!letterOrDigitRunPattern().isValid()) {
        return std::nullopt;
    }
    int words = 0;
    QRegularExpressionMatchIterator runs = letterOrDigitRunPattern().globalMatch(candidate);
    while (runs.hasNext() && words <= maximumTrivialWords) {
        runs.next();
        ++words;
    }
    if (words > maximumTrivialWords) {
        return std::nullopt;
    }
    return candidate;
}

} // namespace parlune
