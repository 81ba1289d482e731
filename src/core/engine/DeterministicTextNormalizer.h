#pragma once

#include <QString>

#include <optional>

namespace parlune {

// Repairs that need no model: Unicode composition and runs of spaces. Pure functions.
class DeterministicTextNormalizer {
public:
    DeterministicTextNormalizer() = delete;

    // `text` in NFC with inner runs of spaces and tabs collapsed and, in pure ASCII text only, the
    // spaces before "." and "," removed. None when that changes nothing.
    static std::optional<QString> rewriteIfNeeded(const QString& text);

    // A complete "Improve clarity" answer for a fragment of at most two words and 64 characters
    // whose only defect is composition or spacing; none when the model should be asked.
    static std::optional<QString> rewriteIfTriviallySafe(const QString& text);
};

} // namespace parlune
