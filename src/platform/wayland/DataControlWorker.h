#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

struct wl_callback;
struct wl_interface;
struct wl_proxy;
class QSocketNotifier;
class QTimer;

namespace parlune::wayland {

class WaylandConnection;

// A change of the selection as the compositor reported it.
struct DataControlSelection {
    std::uint64_t offer = 0; // 0: the selection is empty
    std::vector<QString> types;
    bool ours = false; // caused by one of our own sets
};

// The data-control protocol objects of DataControlPasteboard, on the connection's worker thread:
// every member runs there, and the reports are called there too (they post to the main thread).
class DataControlWorker {
public:
    struct Reports {
        std::function<void(DataControlSelection)> selection;
        std::function<void(std::uint64_t source)> cancelled;
        std::function<void(std::int64_t count)> fetched;
        // The primary selection changed (never ours: we do not set it).
        std::function<void(DataControlSelection)> primary;
    };
    using Values = std::vector<std::pair<QString, QByteArray>>;

    DataControlWorker(WaylandConnection& connection, Reports reports);
    ~DataControlWorker();
    DataControlWorker(const DataControlWorker&) = delete;
    DataControlWorker& operator=(const DataControlWorker&) = delete;

    // Binds the protocol; false when the compositor offers neither family or has no seat.
    bool start();
    QString protocol() const;
    // Whether the protocol carries the primary selection (ext, or wlroots' from version 2).
    bool carriesPrimary() const;

    // Makes `values` the selection as source `source` (written while the count was `count`), or
    // empties the selection when `values` is null.
    void setSelection(std::uint64_t source, std::int64_t count, std::shared_ptr<const Values> values);
    // Reads `type` of offer `offer`; nullopt when that offer is no longer the selection (or the
    // primary selection), the owner refused, or it did not answer within `timeoutMs`.
    void read(std::uint64_t offer, const QString& type, int timeoutMs,
              std::function<void(std::optional<QByteArray>)> done);

private:
    struct Family;
    struct Source {
        std::uint64_t id = 0;
        std::int64_t count = 0;
        std::shared_ptr<const Values> values;
    };
    struct Transfer;

    static void onDataOffer(void* data, wl_proxy* device, wl_proxy* offer);
    static void onSelection(void* data, wl_proxy* device, wl_proxy* offer);
    static void onFinished(void* data, wl_proxy* device);
    static void onPrimarySelection(void* data, wl_proxy* device, wl_proxy* offer);
    static void onOfferType(void* data, wl_proxy* offer, const char* type);
    static void onSend(void* data, wl_proxy* source, const char* type, std::int32_t fd);
    static void onCancelled(void* data, wl_proxy* source);
    static void onSetProcessed(void* data, wl_callback* callback, std::uint32_t time);

    void report(DataControlSelection change);
    void releaseOffer(wl_proxy*& offer);
    // Makes `offer` the current one of `slot` under a new id and says what it offers.
    DataControlSelection adopt(wl_proxy*& slot, std::uint64_t& id, wl_proxy* offer);
    void finishTransfer(Transfer* transfer, std::optional<QByteArray> bytes);

    WaylandConnection& connection_;
    Reports reports_;
    const Family* family_ = nullptr;
    wl_proxy* manager_ = nullptr;
    wl_proxy* device_ = nullptr;
    // Offers announced but not yet made the selection, with the types they listed.
    std::map<wl_proxy*, std::vector<QString>> announced_;
    wl_proxy* selection_ = nullptr;
    wl_proxy* primary_ = nullptr;
    std::uint64_t selectionId_ = 0;
    std::uint64_t primaryId_ = 0;
    std::uint64_t nextOfferId_ = 1;
    std::map<wl_proxy*, Source> sources_;
    // Our sets whose sync has not come back yet, and the selection events held back meanwhile.
    struct PendingSet {
        wl_callback* sync = nullptr;
        bool empties = false;
    };
    std::deque<PendingSet> pendingSets_;
    std::vector<DataControlSelection> heldBack_;
    std::vector<std::unique_ptr<Transfer>> transfers_;
};

} // namespace parlune::wayland
