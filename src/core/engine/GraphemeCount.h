#pragma once

#include <QString>

#include <cstdint>

namespace parlune {

// The number of user-perceived characters (extended grapheme clusters) of `text`: what a person
// counts, and what lengths in the diagnostics log mean.
std::int64_t graphemeClusterCount(const QString& text);

} // namespace parlune
