#include "desktop/SimulatedPasteboard.h"

#include "desktop/SimulatedDesktop.h"

namespace parlune::test {

std::int64_t SimulatedPasteboard::changeCount() const {
    return desktop_.changeCount();
}

int SimulatedPasteboard::itemCount() const {
    return static_cast<int>(desktop_.pasteboardItems().size());
}

std::vector<QString> SimulatedPasteboard::types(int index) const {
    const auto& items = desktop_.pasteboardItems();
    std::vector<QString> result;
    if (index >= 0 && index < static_cast<int>(items.size())) {
        for (const auto& value : items[static_cast<std::size_t>(index)].values) {
            result.push_back(value.first);
        }
    }
    return result;
}

std::optional<QByteArray> SimulatedPasteboard::data(int index, const QString& type) const {
    if (desktop_.unreadableTypes.count(type) > 0) {
        return std::nullopt;
    }
    const auto& items = desktop_.pasteboardItems();
    if (index < 0 || index >= static_cast<int>(items.size())) {
        return std::nullopt;
    }
    for (const auto& value : items[static_cast<std::size_t>(index)].values) {
        if (value.first == type) {
            return value.second;
        }
    }
    return std::nullopt;
}

std::optional<QString> SimulatedPasteboard::string() const {
    return desktop_.pasteboardString();
}

QString SimulatedPasteboard::plainTextType() const {
    return SimulatedDesktop::plainTextType();
}

void SimulatedPasteboard::clearContents() {
    desktop_.clearPasteboard(PasteboardWriter::program);
}

bool SimulatedPasteboard::writeItems(const std::vector<PasteboardItem>& items) {
    desktop_.writePasteboard(items, PasteboardWriter::program);
    return true;
}

void SimulatedPasteboard::prepareForNewLocalContents() {
    // Like taking ownership: the old contents are gone and the count moves.
    ++localAnnouncements;
    desktop_.clearPasteboard(PasteboardWriter::program);
}

bool SimulatedPasteboard::contentsWereFetched(std::int64_t count) const {
    return desktop_.reportsFetches && desktop_.fetchedChangeCounts().count(count) > 0;
}

bool SimulatedPasteboard::reportsFetches() const {
    return desktop_.reportsFetches;
}

} // namespace parlune::test
