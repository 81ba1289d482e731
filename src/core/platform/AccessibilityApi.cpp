#include "core/platform/AccessibilityApi.h"

namespace parlune {

QCoro::Task<AccessibilityElementRef> AccessibilityApi::focusedElementAsync() {
    co_return focusedElement();
}

QCoro::Task<std::optional<ProcessId>>
AccessibilityApi::processOfAsync(const AccessibilityElementRef& element) {
    co_return processOf(*element);
}

QCoro::Task<std::optional<TextRange>>
AccessibilityApi::selectedTextRangeAsync(const AccessibilityElementRef& element) {
    co_return selectedTextRange(*element);
}

QCoro::Task<std::optional<QString>>
AccessibilityApi::selectedTextAsync(const AccessibilityElementRef& element) {
    co_return selectedText(*element);
}

QCoro::Task<std::optional<QString>>
AccessibilityApi::stringForRangeAsync(const AccessibilityElementRef& element, TextRange range) {
    co_return stringForRange(*element, range);
}

QCoro::Task<AccessibilityApi::SettableAnswer>
AccessibilityApi::isSelectedTextSettableAsync(const AccessibilityElementRef& element) {
    co_return isSelectedTextSettable(*element);
}

QCoro::Task<int> AccessibilityApi::setSelectedTextAsync(const AccessibilityElementRef& element,
                                                        const QString& text) {
    co_return setSelectedText(*element, text);
}

} // namespace parlune
