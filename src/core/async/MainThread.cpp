#include "core/async/MainThread.h"
#include "core/async/CancellationError.h"

#include <QCoreApplication>
#include <QMetaObject>

namespace parlune {

void postToMainThread(std::function<void()> work) {
    QCoreApplication* app = QCoreApplication::instance();
    Q_ASSERT_X(app != nullptr, "postToMainThread", "no QCoreApplication");
    QMetaObject::invokeMethod(app, std::move(work), Qt::QueuedConnection);
}

bool isCancellation(const std::exception_ptr& error) {
    if (!error) {
        return false;
    }
    try {
        std::rethrow_exception(error);
    } catch (const CancellationError&) {
        return true;
    } catch (...) {
        return false;
    }
}

} // namespace parlune
