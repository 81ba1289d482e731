#pragma once

#include "core/selection/CapturedSelection.h"

#include <QUuid>

namespace parlune::test {

// A clipboard-path selection of `text` in process `pid` at `range`; a fresh id every call.
inline CapturedSelection sampleSelection(const QString& text, ProcessId pid = 4242,
                                         std::optional<TextRange> range = TextRange{0, 5}) {
    return CapturedSelection(QUuid::createUuid(), text, QStringLiteral("org.example.Editor"), pid, range,
                             SelectionReplacementStrategy::clipboardFallback, nullptr);
}

} // namespace parlune::test
