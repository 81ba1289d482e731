#include "platform/atspi/AtspiAccessibility.h"

#include "core/async/Continuation.h"
#include "core/async/MainThread.h"
#include "core/platform/Workspace.h"
#include "platform/atspi/AtspiElement.h"
#include "platform/atspi/AtspiReferences.h"
#include "platform/atspi/AtspiWorker.h"

#include <atspi/atspi.h>

#include <QTimer>

#include <atomic>
#include <future>
#include <limits>
#include <memory>
#include <vector>

namespace parlune::atspi {

void AtspiAccessibility::prepareProcess() {
    if (!qEnvironmentVariableIsSet("QT_NO_GLIB")) {
        qputenv("QT_NO_GLIB", "1");
    }
}

namespace {

// Bounds of the focus search inside one window; real windows are far smaller.
constexpr int maxDepth = 48;
constexpr int maxVisited = 4000;
constexpr int busConnectionWaitMs = 5000;

using Clock = std::chrono::steady_clock;

// --- on the worker thread --------------------------------------------------------------------

struct Search {
    AtspiAccessible* best = nullptr; // borrowed from `keep`
    int bestDepth = -1;
    int visited = 0;
    Clock::time_point deadline;
    std::vector<Ref<AtspiAccessible>> keep;

    bool exhausted() const { return visited > maxVisited || Clock::now() >= deadline; }
};

void findFocusedText(AtspiAccessible* node, int depth, Search& search) {
    ++search.visited;
    if (depth > maxDepth || search.exhausted()) {
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
    for (gint i = 0; i < children && !search.exhausted(); ++i) {
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

AccessibilityElementRef findFocusedElement(ProcessId front, Clock::duration walkBudget,
                                           const std::shared_ptr<AtspiWorker>& worker) {
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
        if (failed(error) || static_cast<ProcessId>(process) != front) {
            continue;
        }
        gchar* toolkit = atspi_accessible_get_toolkit_name(application.get(), &error);
        failed(error);
        const auto unit = toolkit && g_ascii_strcasecmp(toolkit, "Qt") == 0
                              ? AtspiElement::OffsetUnit::utf16
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
            search.deadline = Clock::now() + walkBudget;
            findFocusedText(window.get(), 0, search);
            if (search.best) {
                return std::make_shared<AtspiElement>(search.best, unit, worker);
            }
            return nullptr;
        }
    }
    return nullptr;
}

std::optional<ProcessId> busProcess(const AtspiElement& element) {
    GError* error = nullptr;
    const guint process = atspi_accessible_get_process_id(element.accessible(), &error);
    if (failed(error) || process == 0) {
        return std::nullopt;
    }
    return static_cast<ProcessId>(process);
}

std::optional<QString> busText(const AtspiElement& element, int start, int end) {
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

struct BusRange {
    int start = 0;
    int end = 0;
};

std::optional<BusRange> busSelection(const AtspiElement& element) {
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
    BusRange result{std::min(range->start_offset, range->end_offset),
                    std::max(range->start_offset, range->end_offset)};
    g_free(range);
    return result;
}

std::optional<int> toUtf16(const AtspiElement& element, int busOffset) {
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

std::optional<int> toBusOffset(const AtspiElement& element, std::int64_t utf16Offset) {
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

std::optional<TextRange> busSelectedRange(const AtspiElement& element) {
    const std::optional<BusRange> range = busSelection(element);
    if (!range) {
        return std::nullopt;
    }
    const std::optional<int> start = toUtf16(element, range->start);
    const std::optional<int> end = range->end == range->start ? start : toUtf16(element, range->end);
    if (!start || !end) {
        return std::nullopt;
    }
    return TextRange{*start, *end - *start};
}

std::optional<QString> busSelectedText(const AtspiElement& element) {
    const std::optional<BusRange> range = busSelection(element);
    if (!range) {
        return std::nullopt;
    }
    if (range->start == range->end) {
        return QString();
    }
    return busText(element, range->start, range->end);
}

std::optional<QString> busStringForRange(const AtspiElement& element, TextRange range) {
    if (range.location < 0 || range.length < 1) {
        return std::nullopt;
    }
    const std::optional<int> start = toBusOffset(element, range.location);
    const std::optional<int> end = toBusOffset(element, range.location + range.length);
    if (!start || !end) {
        return std::nullopt;
    }
    std::optional<QString> text = busText(element, *start, *end);
    if (!text || text->size() != range.length) {
        return std::nullopt; // the range runs past the end of the text
    }
    return text;
}

AccessibilityApi::SettableAnswer busSettable(const AtspiElement& element) {
    Ref<AtspiEditableText> editable(atspi_accessible_get_editable_text_iface(element.accessible()));
    return {0, editable && hasState(element.accessible(), ATSPI_STATE_EDITABLE)};
}

int busSetSelectedText(const AtspiElement& element, const QString& text) {
    Ref<AtspiEditableText> editable(atspi_accessible_get_editable_text_iface(element.accessible()));
    const std::optional<BusRange> range = busSelection(element);
    if (!editable || !range) {
        return AtspiAccessibility::notEditableStatus;
    }
    GError* error = nullptr;
    if (range->end > range->start) {
        atspi_editable_text_delete_text(editable.get(), range->start, range->end, &error);
        if (failed(error)) {
            return AtspiAccessibility::writeRefusedStatus;
        }
    }
    // The insert's length is in the toolkit's own unit: UTF-8 bytes for GTK, UTF-16 units for Qt.
    const QByteArray utf8 = text.toUtf8();
    const bool utf16 = element.offsetUnit() == AtspiElement::OffsetUnit::utf16;
    const gint length = utf16 ? static_cast<gint>(text.size()) : static_cast<gint>(utf8.size());
    atspi_editable_text_insert_text(editable.get(), range->start, utf8.constData(), length, &error);
    if (failed(error)) {
        return AtspiAccessibility::writeRefusedStatus;
    }
    // Both toolkits answer success even when nothing was inserted: believe only what reads back.
    const int written = utf16 ? static_cast<int>(text.size()) : static_cast<int>(text.toUcs4().size());
    const std::optional<QString> back = busText(element, range->start, range->start + written);
    return back == text ? 0 : AtspiAccessibility::notReadBackStatus;
}

// --- between the threads ---------------------------------------------------------------------

// Only our own elements can be asked about; any other handle answers "absent".
std::shared_ptr<const AtspiElement> ours(const AccessibilityElementRef& element) {
    return std::dynamic_pointer_cast<const AtspiElement>(element);
}

// Runs `question` on the worker and resumes the caller on the main thread with its answer, or with
// `absent` once `budget` has passed. A question whose caller gave up before the worker reached it
// is skipped, so one hung application delays the questions behind it by at most their budgets.
// (The question is taken by reference and copied before the first suspension: callers pass a named
// local, as non-trivial temporaries inside co_await expressions are not handled reliably by GCC 12.)
template <typename T>
QCoro::Task<T> ask(AtspiWorker& worker, const std::function<T()>& question, const T& absent,
                   std::chrono::milliseconds budget) {
    Continuation<T> answer;
    auto abandoned = std::make_shared<std::atomic<bool>>(false);
    worker.post([answer, question, abandoned]() mutable {
        if (abandoned->load()) {
            return;
        }
        T result = question();
        postToMainThread(
            [answer, result = std::move(result)]() mutable { answer.resume(std::move(result)); });
    });
    QTimer timer;
    timer.setSingleShot(true);
    QObject::connect(&timer, &QTimer::timeout, [answer, abandoned, absent]() mutable {
        abandoned->store(true);
        answer.resume(absent);
    });
    timer.start(budget);
    co_return co_await answer.wait();
}

// The same, blocking the calling thread until the answer or the budget.
template <typename T>
T askAndWait(AtspiWorker& worker, std::function<T()> question, T absent, std::chrono::milliseconds budget) {
    auto promise = std::make_shared<std::promise<T>>();
    std::future<T> future = promise->get_future();
    worker.post([promise, question = std::move(question)] { promise->set_value(question()); });
    if (future.wait_for(budget) != std::future_status::ready) {
        return absent;
    }
    return future.get();
}

} // namespace

AtspiAccessibility::AtspiAccessibility(Workspace& workspace, std::function<bool()> syntheticKeysAvailable)
    : AtspiAccessibility(workspace, std::move(syntheticKeysAvailable), Budgets{}) {}

AtspiAccessibility::AtspiAccessibility(Workspace& workspace, std::function<bool()> syntheticKeysAvailable,
                                       Budgets budgets)
    : workspace_(workspace), syntheticKeysAvailable_(std::move(syntheticKeysAvailable)), budgets_(budgets),
      worker_(AtspiWorker::start()) {}

AtspiAccessibility::AtspiAccessibility(Workspace& workspace, std::function<bool()> syntheticKeysAvailable,
                                       std::shared_ptr<AtspiWorker> worker)
    : workspace_(workspace), syntheticKeysAvailable_(std::move(syntheticKeysAvailable)),
      worker_(std::move(worker)) {}

AtspiAccessibility::~AtspiAccessibility() = default;

bool AtspiAccessibility::isBusAvailable() const {
    return worker_->waitForBus(busConnectionWaitMs);
}

bool AtspiAccessibility::isProcessTrusted() const {
    return syntheticKeysAvailable_ && syntheticKeysAvailable_();
}

bool AtspiAccessibility::requestTrustWithPrompt() {
    // There is no permission to ask for on X11; the answer is the same as without a prompt.
    return isProcessTrusted();
}

std::function<AccessibilityElementRef()> AtspiAccessibility::focusSearch() {
    // The frontmost process comes from the workspace, here on the main thread; the bus walk runs on
    // the worker.
    const std::optional<RunningApplication> front = workspace_.frontmostApplication();
    if (!front) {
        return [] { return AccessibilityElementRef(); };
    }
    return [process = front->processIdentifier, walk = budgets_.treeWalk, worker = worker_] {
        return worker->waitForBus(0) ? findFocusedElement(process, walk, worker) : nullptr;
    };
}

// --- blocking forms --------------------------------------------------------------------------

AccessibilityElementRef AtspiAccessibility::focusedElement() {
    return askAndWait<AccessibilityElementRef>(*worker_, focusSearch(), nullptr, budgets_.focusSearch);
}

std::optional<ProcessId> AtspiAccessibility::processOf(const AccessibilityElement& element) {
    const auto* found = dynamic_cast<const AtspiElement*>(&element);
    if (!found) {
        return std::nullopt;
    }
    auto atspi = found->shared_from_this();
    return askAndWait<std::optional<ProcessId>>(
        *worker_, [atspi] { return busProcess(*atspi); }, std::nullopt, budgets_.query);
}

std::optional<TextRange> AtspiAccessibility::selectedTextRange(const AccessibilityElement& element) {
    const auto* found = dynamic_cast<const AtspiElement*>(&element);
    if (!found) {
        return std::nullopt;
    }
    auto atspi = found->shared_from_this();
    return askAndWait<std::optional<TextRange>>(
        *worker_, [atspi] { return busSelectedRange(*atspi); }, std::nullopt, budgets_.query);
}

std::optional<QString> AtspiAccessibility::selectedText(const AccessibilityElement& element) {
    const auto* found = dynamic_cast<const AtspiElement*>(&element);
    if (!found) {
        return std::nullopt;
    }
    auto atspi = found->shared_from_this();
    return askAndWait<std::optional<QString>>(
        *worker_, [atspi] { return busSelectedText(*atspi); }, std::nullopt, budgets_.query);
}

std::optional<QString> AtspiAccessibility::stringForRange(const AccessibilityElement& element,
                                                          TextRange range) {
    const auto* found = dynamic_cast<const AtspiElement*>(&element);
    if (!found) {
        return std::nullopt;
    }
    auto atspi = found->shared_from_this();
    return askAndWait<std::optional<QString>>(
        *worker_, [atspi, range] { return busStringForRange(*atspi, range); }, std::nullopt, budgets_.query);
}

AccessibilityApi::SettableAnswer
AtspiAccessibility::isSelectedTextSettable(const AccessibilityElement& element) {
    const auto* found = dynamic_cast<const AtspiElement*>(&element);
    if (!found) {
        return {notEditableStatus, false};
    }
    auto atspi = found->shared_from_this();
    return askAndWait<SettableAnswer>(
        *worker_, [atspi] { return busSettable(*atspi); }, SettableAnswer{timedOutStatus, false},
        budgets_.query);
}

int AtspiAccessibility::setSelectedText(const AccessibilityElement& element, const QString& text) {
    const auto* found = dynamic_cast<const AtspiElement*>(&element);
    if (!found) {
        return notEditableStatus;
    }
    auto atspi = found->shared_from_this();
    return askAndWait<int>(
        *worker_, [atspi, text] { return busSetSelectedText(*atspi, text); }, timedOutStatus, budgets_.write);
}

// --- asynchronous forms ----------------------------------------------------------------------

QCoro::Task<AccessibilityElementRef> AtspiAccessibility::focusedElementAsync() {
    const std::function<AccessibilityElementRef()> question = focusSearch();
    AccessibilityElementRef answer =
        co_await ask<AccessibilityElementRef>(*worker_, question, nullptr, budgets_.focusSearch);
    co_return answer;
}

QCoro::Task<std::optional<ProcessId>>
AtspiAccessibility::processOfAsync(const AccessibilityElementRef& element) {
    auto atspi = ours(element);
    if (!atspi) {
        co_return std::nullopt;
    }
    const std::function<std::optional<ProcessId>()> question = [atspi] { return busProcess(*atspi); };
    std::optional<ProcessId> answer =
        co_await ask<std::optional<ProcessId>>(*worker_, question, std::nullopt, budgets_.query);
    co_return answer;
}

QCoro::Task<std::optional<TextRange>>
AtspiAccessibility::selectedTextRangeAsync(const AccessibilityElementRef& element) {
    auto atspi = ours(element);
    if (!atspi) {
        co_return std::nullopt;
    }
    const std::function<std::optional<TextRange>()> question = [atspi] { return busSelectedRange(*atspi); };
    std::optional<TextRange> answer =
        co_await ask<std::optional<TextRange>>(*worker_, question, std::nullopt, budgets_.query);
    co_return answer;
}

QCoro::Task<std::optional<QString>>
AtspiAccessibility::selectedTextAsync(const AccessibilityElementRef& element) {
    auto atspi = ours(element);
    if (!atspi) {
        co_return std::nullopt;
    }
    const std::function<std::optional<QString>()> question = [atspi] { return busSelectedText(*atspi); };
    std::optional<QString> answer =
        co_await ask<std::optional<QString>>(*worker_, question, std::nullopt, budgets_.query);
    co_return answer;
}

QCoro::Task<std::optional<QString>>
AtspiAccessibility::stringForRangeAsync(const AccessibilityElementRef& element, TextRange range) {
    auto atspi = ours(element);
    if (!atspi) {
        co_return std::nullopt;
    }
    const std::function<std::optional<QString>()> question = [atspi, range] {
        return busStringForRange(*atspi, range);
    };
    std::optional<QString> answer =
        co_await ask<std::optional<QString>>(*worker_, question, std::nullopt, budgets_.query);
    co_return answer;
}

QCoro::Task<AccessibilityApi::SettableAnswer>
AtspiAccessibility::isSelectedTextSettableAsync(const AccessibilityElementRef& element) {
    auto atspi = ours(element);
    if (!atspi) {
        co_return SettableAnswer{notEditableStatus, false};
    }
    const std::function<SettableAnswer()> question = [atspi] { return busSettable(*atspi); };
    SettableAnswer answer = co_await ask<SettableAnswer>(
        *worker_, question, SettableAnswer{timedOutStatus, false}, budgets_.query);
    co_return answer;
}

QCoro::Task<int> AtspiAccessibility::setSelectedTextAsync(const AccessibilityElementRef& element,
                                                          const QString& text) {
    auto atspi = ours(element);
    if (!atspi) {
        co_return notEditableStatus;
    }
    const std::function<int()> question = [atspi, text] { return busSetSelectedText(*atspi, text); };
    int answer = co_await ask<int>(*worker_, question, timedOutStatus, budgets_.write);
    co_return answer;
}

} // namespace parlune::atspi
