#pragma once

#include "core/platform/ProcessId.h"

#include <QCoro/QCoroTask>
#include <QString>

#include <optional>

namespace parlune {

// The text the user last selected anywhere (X11's PRIMARY selection), which many applications
// hold without any key being sent to them. It may be stale (a page script's selection does not
// update it), so it is read only for applications that cannot be asked to copy.
class PrimarySelection {
public:
    virtual ~PrimarySelection() = default;
    // The selected text when a window of `process` holds the primary selection; nullopt when
    // another program holds it, nobody does, or it cannot be read as text.
    virtual QCoro::Task<std::optional<QString>> textHeldBy(ProcessId process) = 0;
};

} // namespace parlune
