#include "desktop/SimulatedDesktop.h"

#include "core/platform/KeyboardEvents.h"
#include "desktop/SimulatedAccessibility.h"
#include "desktop/SimulatedKeyboard.h"
#include "desktop/SimulatedPasteboard.h"
#include "desktop/SimulatedWorkspace.h"

#include <QTimer>

namespace parlune::test {

SimulatedDesktop::SimulatedDesktop()
    : accessibility_(std::make_unique<SimulatedAccessibility>(*this)),
      workspace_(std::make_unique<SimulatedWorkspace>(*this)),
      pasteboard_(std::make_unique<SimulatedPasteboard>(*this)),
      keyboard_(std::make_unique<SimulatedKeyboard>(*this)) {}

SimulatedDesktop::~SimulatedDesktop() = default;

// MARK: applications, windows, fields, focus

SimulatedApplication& SimulatedDesktop::launch(ProcessId pid, std::optional<QString> identifier) {
    SimulatedApplication& app = applications_[pid];
    app = SimulatedApplication{};
    app.pid = pid;
    app.identifier = std::move(identifier);
    return app;
}

void SimulatedDesktop::quit(ProcessId pid) {
    applications_.erase(pid);
    if (frontmost_ == pid) {
        frontmost_.reset();
    }
}

int SimulatedDesktop::openWindow(ProcessId pid, const QString& title) {
    const int id = nextId_++;
    windows_[id] = SimulatedWindow{id, pid, title, 0};
    if (SimulatedApplication* app = application(pid); app && app->activeWindow == 0) {
        app->activeWindow = id;
    }
    return id;
}

int SimulatedDesktop::addField(int window, const QString& text) {
    const int id = nextId_++;
    SimulatedField field;
    field.id = id;
    field.owner = windows_.at(window).owner;
    field.window = window;
    field.text = text;
    field.selection = {text.size(), 0};
    fields_[id] = field;
    if (windows_.at(window).focusedField == 0) {
        windows_.at(window).focusedField = id;
    }
    return id;
}

SimulatedApplication* SimulatedDesktop::application(ProcessId pid) {
    auto found = applications_.find(pid);
    return found == applications_.end() ? nullptr : &found->second;
}

SimulatedField* SimulatedDesktop::field(int id) {
    auto found = fields_.find(id);
    return found == fields_.end() ? nullptr : &found->second;
}

const SimulatedField* SimulatedDesktop::field(int id) const {
    auto found = fields_.find(id);
    return found == fields_.end() ? nullptr : &found->second;
}

void SimulatedDesktop::select(int fieldId, TextRange range) {
    fields_.at(fieldId).selection = range;
}

void SimulatedDesktop::focus(int fieldId) {
    SimulatedField& target = fields_.at(fieldId);
    SimulatedWindow& window = windows_.at(target.window);
    window.focusedField = fieldId;
    applications_.at(target.owner).activeWindow = window.id;
    frontmost_ = target.owner;
}

void SimulatedDesktop::activate(ProcessId pid) {
    if (application(pid)) {
        frontmost_ = pid;
    }
}

void SimulatedDesktop::clearFrontmost() {
    frontmost_.reset();
}

int SimulatedDesktop::focusedFieldOf(ProcessId pid) const {
    auto app = applications_.find(pid);
    if (app == applications_.end()) {
        return 0;
    }
    auto window = windows_.find(app->second.activeWindow);
    return window == windows_.end() ? 0 : window->second.focusedField;
}

int SimulatedDesktop::focusedField() const {
    return frontmost_ ? focusedFieldOf(*frontmost_) : 0;
}

void SimulatedDesktop::runAccessibilityQueryHook() {
    if (auto hook = std::exchange(beforeNextAccessibilityQuery, nullptr)) {
        hook();
    }
}

// MARK: pasteboard

QString SimulatedDesktop::plainTextType() {
    return QStringLiteral("text/plain;charset=utf-8");
}

void SimulatedDesktop::writePasteboardAsOther(std::vector<PasteboardItem> items) {
    writePasteboard(std::move(items), PasteboardWriter::other);
}

void SimulatedDesktop::writePasteboard(std::vector<PasteboardItem> items, PasteboardWriter writer,
                                       ProcessId application) {
    pasteboardItems_ = std::move(items);
    ++changeCount_;
    writes_.push_back({changeCount_, writer, application, pasteboardItems_});
    if (writer == PasteboardWriter::program && onProgramWrite) {
        onProgramWrite(pasteboardItems_);
    }
}

void SimulatedDesktop::clearPasteboard(PasteboardWriter writer) {
    pasteboardItems_.clear();
    ++changeCount_;
    writes_.push_back({changeCount_, writer, 0, {}});
}

std::optional<QString> SimulatedDesktop::pasteboardString() const {
    for (const auto& item : pasteboardItems_) {
        for (const auto& [type, data] : item.values) {
            if (type == plainTextType() && unreadableTypes.count(type) == 0) {
                return QString::fromUtf8(data);
            }
        }
    }
    return std::nullopt;
}

// MARK: synthetic keys

void SimulatedDesktop::sendCommandKey(std::uint16_t keyCode, ProcessId target) {
    const SentKey key{keyCode, target};
    sentKeys_.push_back(key);
    if (onCommandKey) {
        onCommandKey(key);
    }
    after(keyDelayMs, [this, key] { deliverCommandKey(key); });
}

void SimulatedDesktop::deliverCommandKey(SentKey key) {
    ProcessId receiver = key.target;
    if (keysFollowDesktopFocus) {
        if (!frontmost_) {
            return;
        }
        receiver = *frontmost_;
    }
    SimulatedApplication* app = application(receiver);
    SimulatedField* target = field(focusedFieldOf(receiver));
    if (!app || !target) {
        return;
    }
    if (key.keyCode == KeyboardEvents::keyCodeC) {
        const QString selected = target->selectedText();
        if (app->ignoresCopy || selected.isEmpty()) {
            return;
        }
        // Applications offer rich text beside plain text.
        PasteboardItem item;
        item.values.emplace_back(QStringLiteral("text/html"),
                                 (QStringLiteral("<span>") + selected + QStringLiteral("</span>")).toUtf8());
        item.values.emplace_back(plainTextType(), selected.toUtf8());
        writePasteboard({item}, PasteboardWriter::application, receiver);
    } else if (key.keyCode == KeyboardEvents::keyCodeV) {
        if (app->ignoresPaste) {
            return;
        }
        const auto pasted = pasteboardString();
        recordFetch();
        if (!pasted) {
            return;
        }
        const TextRange old = target->selection;
        target->text.replace(old.location, old.length, *pasted);
        target->selection = app->pasteLeavesSelection ? TextRange{old.location, pasted->size()}
                                                      : TextRange{old.location + pasted->size(), 0};
        recordInsertion(target->id, *pasted, true);
    }
}

// MARK: audit and timers

void SimulatedDesktop::recordInsertion(int fieldId, const QString& text, bool byPaste) {
    insertions_.push_back({fieldId, text, byPaste});
}

void SimulatedDesktop::clearLogs() {
    writes_.clear();
    sentKeys_.clear();
    insertions_.clear();
    fetched_.clear();
}

void SimulatedDesktop::after(int ms, std::function<void()> work) {
    QTimer::singleShot(ms, Qt::PreciseTimer, &timerContext_, std::move(work));
}

} // namespace parlune::test
