#pragma once

#include <cstdint>
#include <memory>

namespace parlune {

// Opaque handle of a user-interface element of another application. The platform decides what
// equality means; the handle is held for as long as any copy of a captured selection refers to it.
class AccessibilityElement {
public:
    virtual ~AccessibilityElement() = default;
    virtual bool isSameElement(const AccessibilityElement& other) const = 0;
    // Stable for the life of the handle; never negative.
    virtual std::int64_t hashValue() const = 0;
};

using AccessibilityElementRef = std::shared_ptr<const AccessibilityElement>;

} // namespace parlune
