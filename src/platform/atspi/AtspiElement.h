#pragma once

#include "core/platform/AccessibilityElement.h"

#include <QString>

#include <memory>

typedef struct _AtspiAccessible AtspiAccessible;

namespace parlune::atspi {

// One object of another application on the accessibility bus. Identity is the owning
// application's bus name plus the object path, which is what the bus itself addresses; how the
// application counts text offsets (code points for GTK and most toolkits, UTF-16 units for Qt)
// travels with the element.
class AtspiWorker;

// Made and read only on the worker thread; its reference is given back there too, whichever thread
// drops the last copy of the handle.
class AtspiElement final : public AccessibilityElement, public std::enable_shared_from_this<AtspiElement> {
public:
    enum class OffsetUnit { codePoint, utf16 };

    // Takes a reference of `accessible`. On the worker thread only.
    AtspiElement(AtspiAccessible* accessible, OffsetUnit unit, std::shared_ptr<AtspiWorker> worker);
    ~AtspiElement() override;
    AtspiElement(const AtspiElement&) = delete;
    AtspiElement& operator=(const AtspiElement&) = delete;

    bool isSameElement(const AccessibilityElement& other) const override;
    std::int64_t hashValue() const override;

    AtspiAccessible* accessible() const { return accessible_; }
    OffsetUnit offsetUnit() const { return unit_; }
    const QString& address() const { return address_; }

private:
    AtspiAccessible* accessible_;
    OffsetUnit unit_;
    std::shared_ptr<AtspiWorker> worker_;
    QString address_;
};

} // namespace parlune::atspi
