#include "core/async/TaskHandle.h"

#include <QtGlobal>

namespace parlune::detail {

void reportUnexpectedTaskError() {
    // The error's text may quote user data, so only the fact is reported.
    qWarning("parlune: a background task ended with an unexpected error");
}

} // namespace parlune::detail
