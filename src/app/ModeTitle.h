#pragma once

#include "core/modes/RewriteMode.h"

#include <QString>

namespace parlune::app {

inline QString modeTitle(RewriteMode mode) {
    const std::string_view raw = rewrite_mode::rawValue(mode);
    return QString::fromUtf8(raw.data(), static_cast<qsizetype>(raw.size()));
}

} // namespace parlune::app
