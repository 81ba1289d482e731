#include "platform/atspi/AtspiElement.h"

#include "platform/atspi/AtspiWorker.h"

#include <QCryptographicHash>

#include <atspi/atspi.h>

#include <cstring>

namespace parlune::atspi {

AtspiElement::AtspiElement(AtspiAccessible* accessible, OffsetUnit unit, std::shared_ptr<AtspiWorker> worker)
    : accessible_(static_cast<AtspiAccessible*>(g_object_ref(accessible))), unit_(unit),
      worker_(std::move(worker)) {
    const AtspiObject* object = ATSPI_OBJECT(accessible_);
    const char* busName = object->app ? object->app->bus_name : nullptr;
    address_ = QString::fromUtf8(busName ? busName : "") + QLatin1Char(':') +
               QString::fromUtf8(object->path ? object->path : "");
}

AtspiElement::~AtspiElement() {
    if (worker_->isWorkerThread()) {
        g_object_unref(accessible_);
    } else {
        worker_->post([accessible = accessible_] { g_object_unref(accessible); });
    }
}

bool AtspiElement::isSameElement(const AccessibilityElement& other) const {
    const auto* element = dynamic_cast<const AtspiElement*>(&other);
    return element && element->address_ == address_;
}

std::int64_t AtspiElement::hashValue() const {
    const QByteArray digest = QCryptographicHash::hash(address_.toUtf8(), QCryptographicHash::Sha256);
    std::int64_t value = 0;
    std::memcpy(&value, digest.constData(), sizeof(value));
    return value & 0x7fffffffffffffffLL;
}

} // namespace parlune::atspi
