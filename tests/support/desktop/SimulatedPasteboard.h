#pragma once

#include "core/platform/Pasteboard.h"

namespace parlune::test {

class SimulatedDesktop;

// The program's view of the simulated desktop's pasteboard. Its writes count as the program's.
class SimulatedPasteboard final : public Pasteboard {
public:
    explicit SimulatedPasteboard(SimulatedDesktop& desktop) : desktop_(desktop) {}

    std::int64_t changeCount() const override;
    int itemCount() const override;
    std::vector<QString> types(int index) const override;
    std::optional<QByteArray> data(int index, const QString& type) const override;
    std::optional<QString> string() const override;
    QString plainTextType() const override;
    void clearContents() override;
    bool writeItems(const std::vector<PasteboardItem>& items) override;
    void prepareForNewLocalContents() override;
    bool contentsWereFetched(std::int64_t count) const override;
    bool reportsFetches() const override;

    int localAnnouncements = 0;

private:
    SimulatedDesktop& desktop_;
};

} // namespace parlune::test
