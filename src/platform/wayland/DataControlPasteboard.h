#pragma once

#include "core/platform/Pasteboard.h"
#include "platform/wayland/DataControlWorker.h"

#include <QObject>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <vector>

namespace parlune::wayland {

class WaylandConnection;

// The Wayland clipboard through the data-control protocols (ext_data_control_v1 where offered,
// else wlroots' zwlr_data_control_v1), which let a client without a focused surface read and set
// the selection. The protocol objects live on the connection's worker; this side keeps a mirror
// that the worker updates (the change count, what we offer, the types another client offers), so
// every synchronous call answers at once, and reads of another client's data are asynchronous.
//
// Change counting: a selection event does not say who set it, and the compositor echoes our own
// sets back to us. Each set of ours is followed by a sync request; the compositor handles a
// client's requests in order, so the selection event our set caused is the last one that arrives
// before that sync's answer. Events up to then are held back and passed on with that attribution:
// ours do not raise the count (it rose when we wrote), everyone else's do.
//
// Each of our writes is a data source of its own, and the compositor sends a reader's request to
// the source it read from: a slow paste target gets the text it was offered even after the user's
// clipboard has been put back. A request to one of our sources counts as a fetch.
class DataControlPasteboard final : public Pasteboard {
public:
    explicit DataControlPasteboard(WaylandConnection& connection);
    ~DataControlPasteboard() override;
    DataControlPasteboard(const DataControlPasteboard&) = delete;
    DataControlPasteboard& operator=(const DataControlPasteboard&) = delete;

    // Whether the compositor offers a data-control protocol and a seat.
    bool isUsable() const { return usable_; }
    // The data-control global in use; empty when none.
    const QString& protocol() const { return protocol_; }
    bool ownsSelection() const { return owned_.has_value(); }

    // Whether the compositor reports the primary selection (the text last selected anywhere) here.
    bool carriesPrimary() const { return carriesPrimary_; }
    // Runs on the main thread whenever the primary selection changes.
    void setPrimaryChangedHandler(std::function<void()> handler) { onPrimaryChanged_ = std::move(handler); }
    // The primary selection as text; nullopt when it is empty, offers no text, its owner did not
    // answer, or it changed while being read.
    QCoro::Task<std::optional<QString>> primaryTextAsync();

    std::int64_t changeCount() const override { return changeCount_; }
    int itemCount() const override;
    std::vector<QString> types(int index) const override;
    std::optional<QByteArray> data(int index, const QString& type) const override;
    std::optional<QString> string() const override;
    QString plainTextType() const override;
    void clearContents() override;
    bool writeItems(const std::vector<PasteboardItem>& items) override;
    void prepareForNewLocalContents() override {}
    bool contentsWereFetched(std::int64_t count) const override { return fetched_.count(count) > 0; }
    bool reportsFetches() const override { return true; }
    // Our own text, for a window of this very program that pastes it; counts as a fetch.
    std::optional<QString> fetchOwnText();

    QCoro::Task<std::vector<QString>> typesAsync(int index) override;
    QCoro::Task<std::optional<QByteArray>> dataAsync(int index, QString type) override;
    QCoro::Task<std::optional<QString>> stringAsync() override;

    static constexpr int readTimeoutMs = 1000;

private:
    struct Owned {
        std::vector<std::pair<QString, QByteArray>> values;
        std::int64_t count = 0;
        std::uint64_t source = 0;
    };
    struct ReadCache {
        std::int64_t count = -1;
        std::map<QString, std::optional<QByteArray>> data;
    };

    void onSelection(const DataControlSelection& change);
    // Reads `type` of the worker's offer `offer`, without blocking the event loop.
    QCoro::Task<std::optional<QByteArray>> readOffer(std::uint64_t offer, QString type);
    void onCancelled(std::uint64_t source);
    const std::vector<std::pair<QString, QByteArray>>* ownedValues() const;

    WaylandConnection& connection_;
    // Made and destroyed on the worker thread, used only there.
    std::unique_ptr<DataControlWorker> worker_;
    // Drops the worker's reports once this object is gone.
    std::unique_ptr<QObject> guard_;
    bool usable_ = false;
    QString protocol_;
    std::int64_t changeCount_ = 0;
    std::optional<Owned> owned_;
    std::optional<DataControlSelection> foreign_;
    bool carriesPrimary_ = false;
    std::optional<DataControlSelection> primary_;
    std::function<void()> onPrimaryChanged_;
    std::set<std::int64_t> fetched_;
    ReadCache cache_;
    std::uint64_t nextSource_ = 1;
};

} // namespace parlune::wayland
