#include "platform/x11/AtspiAccessibility.h"

#include "core/platform/Workspace.h"
#include "platform/x11/AtspiElement.h"

#include <atspi/atspi.h>

#include <QList>

#include <limits>
#include <memory>
#include <vector>

namespace parlune::x11 {

namespace {

// Bounds of the focus search inside one window; real windows are far smaller.
constexpr int maxDepth = 48;
constexpr int maxVisited = 4000;

// Owns one GObject reference.
struct Unref {
    void operator()(void* object) const {
        if (object) {
            g_object_unref(object);
        }
    }
};
template <typename T>
using Ref = std::unique_ptr<T, Unref>;

// Swallows an error: every failed query simply answers "absent".
bool failed(GError*& error) {
    if (!error) {
        return false;
    }
    g_error_free(error);
    error = nullptr;
    return true;
}

bool hasState(AtspiAccessible* accessible, AtspiStateType state) {
    Ref<AtspiStateSet> states(atspi_accessible_get_state_set(accessible));
    return states && atspi_state_set_contains(states.get(), state);
}

struct Search {
    AtspiAccessible* best = nullptr; // borrowed from `keep`
    int bestDepth = -1;
    int visited = 0;
    std::vector<Ref<AtspiAccessible>> keep;
};

void findFocusedText(AtspiAccessible* node, int depth, Search& search) {
    if (depth > maxDepth || ++search.visited > maxVisited) {
        return;
    }
    GError* error = nullptr;
    if (hasState(node, ATSPI_STATE_FOCUSED) && depth > search.bestDepth) {
        Ref<AtspiText> text(atspi_accessible_get_text_iface(node));
        if (text) {
            search.best = node;
            search.bestDepth = depth;
        }
    }
    const gint children = atspi_accessible_get_child_count(node, &error);
    if (failed(error)) {
        return;
    }
    for (gint i = 0; i < children; ++i) {
        Ref<AtspiAccessible> child(atspi_accessible_get_child_at_index(node, i, &error));
        if (failed(error) || !child) {
            continue;
        }
        // Focus lies on what is shown; hidden subtrees (other tabs, closed menus) are skipped.
        if (!hasState(child.get(), ATSPI_STATE_SHOWING)) {
            continue;
        }
        AtspiAccessible* raw = child.get();
        search.keep.push_back(std::move(child));
        findFocusedText(raw, depth + 1, search);
    }
}

} // namespace

AtspiAccessibility::AtspiAccessibility(Workspace& workspace, std::function<bool()> syntheticKeysAvailable)
    : workspace_(workspace), syntheticKeysAvailable_(std::move(syntheticKeysAvailable)) {
    const int status = atspi_init();
    // 0: connected now, 1: already connected earlier in this process.
    busAvailable_ = status == 0 || status == 1;
    // A hung application must not stall the main thread for long.
    atspi_set_timeout(1500, 5000);
}

bool AtspiAccessibility::isProcessTrusted() const { return syntheticKeysAvailable_ && syntheticKeysAvailable_(); }

bool AtspiAccessibility::requestTrustWithPrompt() {
    // There is no permission to ask for on X11; the answer is the same as without a prompt.
    return isProcessTrusted();
}

AccessibilityElementRef AtspiAccessibility::focusedElement() {
    if (!busAvailable_) {
        return nullptr;
    }
    const std::optional<RunningApplication> front = workspace_.frontmostApplication();
    if (!front) {
        return nullptr;
    }
    Ref<AtspiAccessible> desktop(atspi_get_desktop(0));
    if (!desktop) {
        return nullptr;
    }
    GError* error = nullptr;
    const gint applications = atspi_accessible_get_child_count(desktop.get(), &error);
    if (failed(error)) {
        return nullptr;
    }
    for (gint a = 0; a < applications; ++a) {
        Ref<AtspiAccessible> application(atspi_accessible_get_child_at_index(desktop.get(), a, &error));
        if (failed(error) || !application) {
            continue;
        }
        const guint process = atspi_accessible_get_process_id(application.get(), &error);
        if (failed(error) || static_cast<ProcessId>(process) != front->processIdentifier) {
            continue;
        }
        gchar* toolkit = atspi_accessible_get_toolkit_name(application.get(), &error);
        failed(error);
        const auto unit = toolkit && g_ascii_strcasecmp(toolkit, "Qt") == 0 ? AtspiElement::OffsetUnit::utf16
                                                                             : AtspiElement::OffsetUnit::codePoint;
        g_free(toolkit);

        const gint windows = atspi_accessible_get_child_count(application.get(), &error);
        if (failed(error)) {
            continue;
        }
        for (gint w = 0; w < windows; ++w) {
            Ref<AtspiAccessible> window(atspi_accessible_get_child_at_index(application.get(), w, &error));
            if (failed(error) || !window || !hasState(window.get(), ATSPI_STATE_ACTIVE)) {
                continue;
            }
            Search search;
            findFocusedText(window.get(), 0, search);
            if (search.best) {
                return std::make_shared<AtspiElement>(search.best, unit);
            }
            return nullptr;
        }
    }
    return nullptr;
}

std::optional<ProcessId> AtspiAccessibility::processOf(const AccessibilityElement& element) {
    const auto* atspi = dynamic_cast<const AtspiElement*>(&element);
    if (!atspi) {
        return std::nullopt;
    }
    GError* error = nullptr;
    const guint process = atspi_accessible_get_process_id(atspi->accessible(), &error);
    if (failed(error) || process == 0) {
        return std::nullopt;
    }
    return static_cast<ProcessId>(process);
}

std::optional<QString> AtspiAccessibility::busText(const AtspiElement& element, int start, int end) {
    Ref<AtspiText> text(atspi_accessible_get_text_iface(element.accessible()));
    if (!text) {
        return std::nullopt;
    }
    GError* error = nullptr;
    gchar* utf8 = atspi_text_get_text(text.get(), start, end, &error);
    if (failed(error) || !utf8) {
        g_free(utf8);
        return std::nullopt;
    }
    QString result = QString::fromUtf8(utf8);
    g_free(utf8);
    return result;
}

std::optional<AtspiAccessibility::BusRange> AtspiAccessibility::busSelection(const AtspiElement& element) {
    Ref<AtspiText> text(atspi_accessible_get_text_iface(element.accessible()));
    if (!text) {
        return std::nullopt;
    }
    GError* error = nullptr;
    const gint selections = atspi_text_get_n_selections(text.get(), &error);
    if (failed(error)) {
        return std::nullopt;
    }
    if (selections < 1) {
        const gint caret = atspi_text_get_caret_offset(text.get(), &error);
        if (failed(error) || caret < 0) {
            return std::nullopt;
        }
        return BusRange{caret, caret};
    }
    AtspiRange* range = atspi_text_get_selection(text.get(), 0, &error);
    if (failed(error) || !range) {
        g_free(range);
        return std::nullopt;
    }
    BusRange result{std::min(range->start_offset, range->end_offset), std::max(range->start_offset, range->end_offset)};
    g_free(range);
    return result;
}

std::optional<int> AtspiAccessibility::toUtf16(const AtspiElement& element, int busOffset) {
    if (element.offsetUnit() == AtspiElement::OffsetUnit::utf16 || busOffset <= 0) {
        return busOffset;
    }
    // Code points → UTF-16: the length, in UTF-16, of the text before the offset.
    const std::optional<QString> prefix = busText(element, 0, busOffset);
    if (!prefix) {
        return std::nullopt;
    }
    return static_cast<int>(prefix->size());
}

std::optional<int> AtspiAccessibility::toBusOffset(const AtspiElement& element, std::int64_t utf16Offset) {
    if (utf16Offset < 0 || utf16Offset > std::numeric_limits<int>::max()) {
        return std::nullopt;
    }
    const int units = static_cast<int>(utf16Offset);
    if (element.offsetUnit() == AtspiElement::OffsetUnit::utf16 || units == 0) {
        return units;
    }
    // A text of n UTF-16 units holds at most n code points: this prefix is long enough.
    const std::optional<QString> prefix = busText(element, 0, units);
    if (!prefix || prefix->size() < units) {
        return std::nullopt;
    }
    if (prefix->at(units - 1).isHighSurrogate()) {
        return std::nullopt; // the offset falls inside a character
    }
    return static_cast<int>(prefix->left(units).toUcs4().size());
}

std::optional<TextRange> AtspiAccessibility::selectedTextRange(const AccessibilityElement& element) {
    const auto* atspi = dynamic_cast<const AtspiElement*>(&element);
    if (!atspi) {
        return std::nullopt;
    }
    const std::optional<BusRange> range = busSelection(*atspi);
    if (!range) {
        return std::nullopt;
    }
    const std::optional<int> start = toUtf16(*atspi, range->start);
    const std::optional<int> end = range->end == range->start ? start : toUtf16(*atspi, range->end);
    if (!start || !end) {
        return std::nullopt;
    }
    return TextRange{*start, *end - *start};
}

std::optional<QString> AtspiAccessibility::selectedText(const AccessibilityElement& element) {
    const auto* atspi = dynamic_cast<const AtspiElement*>(&element);
    if (!atspi) {
        return std::nullopt;
    }
    const std::optional<BusRange> range = busSelection(*atspi);
    if (!range) {
        return std::nullopt;
    }
    if (range->start == range->end) {
        return QString();
    }
    return busText(*atspi, range->start, range->end);
}

std::optional<QString> AtspiAccessibility::stringForRange(const AccessibilityElement& element, TextRange range) {
    const auto* atspi = dynamic_cast<const AtspiElement*>(&element);
    if (!atspi || range.location < 0 || range.length < 1) {
        return std::nullopt;
    }
    const std::optional<int> start = toBusOffset(*atspi, range.location);
    const std::optional<int> end = toBusOffset(*atspi, range.location + range.length);
    if (!start || !end) {
        return std::nullopt;
    }
    std::optional<QString> text = busText(*atspi, *start, *end);
    if (!text || text->size() != range.length) {
        return std::nullopt; // the range runs past the end of the text
    }
    return text;
}

AccessibilityApi::SettableAnswer AtspiAccessibility::isSelectedTextSettable(const AccessibilityElement& element) {
    const auto* atspi = dynamic_cast<const AtspiElement*>(&element);
    if (!atspi) {
        return {notEditableStatus, false};
    }
    Ref<AtspiEditableText> editable(atspi_accessible_get_editable_text_iface(atspi->accessible()));
    return {0, editable && hasState(atspi->accessible(), ATSPI_STATE_EDITABLE)};
}

int AtspiAccessibility::setSelectedText(const AccessibilityElement& element, const QString& text) {
    const auto* atspi = dynamic_cast<const AtspiElement*>(&element);
    if (!atspi) {
        return notEditableStatus;
    }
    Ref<AtspiEditableText> editable(atspi_accessible_get_editable_text_iface(atspi->accessible()));
    const std::optional<BusRange> range = busSelection(*atspi);
    if (!editable || !range) {
        return notEditableStatus;
    }
    GError* error = nullptr;
    if (range->end > range->start) {
        atspi_editable_text_delete_text(editable.get(), range->start, range->end, &error);
        if (failed(error)) {
            return writeRefusedStatus;
        }
    }
    // The insert's length is in the toolkit's own unit: UTF-8 bytes for GTK, UTF-16 units for Qt.
    const QByteArray utf8 = text.toUtf8();
    const bool utf16 = atspi->offsetUnit() == AtspiElement::OffsetUnit::utf16;
    const gint length = utf16 ? static_cast<gint>(text.size()) : static_cast<gint>(utf8.size());
    atspi_editable_text_insert_text(editable.get(), range->start, utf8.constData(), length, &error);
    if (failed(error)) {
        return writeRefusedStatus;
    }
    // Both toolkits answer success even when nothing was inserted: believe only what reads back.
    const int written = utf16 ? static_cast<int>(text.size()) : static_cast<int>(text.toUcs4().size());
    const std::optional<QString> back = busText(*atspi, range->start, range->start + written);
    return back == text ? 0 : notReadBackStatus;
}

} // namespace parlune::x11
