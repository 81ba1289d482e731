#include "platform/wayland/DataControlWorker.h"

#include "data-control-client-protocol.h"
#include "platform/wayland/WaylandConnection.h"

#include <QSocketNotifier>
#include <QTimer>

#include <wayland-client.h>

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace parlune::wayland {

namespace {

// Request opcodes, the same in both families.
enum : std::uint32_t {
    managerCreateSource = 0,
    managerGetDevice = 1,
    managerDestroy = 2,
    deviceSetSelection = 0,
    deviceDestroy = 1,
    sourceOffer = 0,
    sourceDestroy = 1,
    offerReceive = 0,
    offerDestroy = 1,
};

// An outgoing transfer that stops draining for this long is dropped (the reader died or gave up).
constexpr int abandonedTransferMs = 5000;

void destroyProxy(wl_proxy* proxy, std::uint32_t opcode) {
    wl_proxy_marshal_flags(proxy, opcode, nullptr, wl_proxy_get_version(proxy), WL_MARSHAL_FLAG_DESTROY);
}

} // namespace

struct DataControlWorker::Family {
    const char* global;
    std::uint32_t newestKnown;
    const wl_interface* manager;
    const wl_interface* device;
    const wl_interface* source;
    std::uint32_t primarySince; // the version whose device reports the primary selection
};

struct DataControlWorker::Transfer {
    int fd = -1;
    bool incoming = false;
    QByteArray bytes;
    qsizetype offset = 0;
    std::unique_ptr<QSocketNotifier> notifier;
    std::unique_ptr<QTimer> timeout;
    std::function<void(std::optional<QByteArray>)> done;
};

DataControlWorker::DataControlWorker(WaylandConnection& connection, Reports reports)
    : connection_(connection), reports_(std::move(reports)) {}

DataControlWorker::~DataControlWorker() {
    for (auto& transfer : transfers_) {
        ::close(transfer->fd);
        if (transfer->done) {
            transfer->done(std::nullopt);
        }
    }
    transfers_.clear();
    for (PendingSet& pending : pendingSets_) {
        wl_callback_destroy(pending.sync);
    }
    for (auto& [offer, types] : announced_) {
        destroyProxy(offer, offerDestroy);
    }
    releaseOffer(selection_);
    releaseOffer(primary_);
    // Destroying our sources ends our ownership: the compositor empties the selection if it was ours.
    for (auto& [source, data] : sources_) {
        destroyProxy(source, sourceDestroy);
    }
    if (device_) {
        destroyProxy(device_, deviceDestroy);
    }
    if (manager_) {
        destroyProxy(manager_, managerDestroy);
    }
}

bool DataControlWorker::start() {
    static const Family ext{"ext_data_control_manager_v1",          1,
                            &ext_data_control_manager_v1_interface, &ext_data_control_device_v1_interface,
                            &ext_data_control_source_v1_interface,  1};
    static const Family wlr{"zwlr_data_control_manager_v1",          2,
                            &zwlr_data_control_manager_v1_interface, &zwlr_data_control_device_v1_interface,
                            &zwlr_data_control_source_v1_interface,  2};
    if (!connection_.seat()) {
        return false;
    }
    for (const Family* family : {&ext, &wlr}) {
        manager_ =
            static_cast<wl_proxy*>(connection_.bind(family->global, family->manager, family->newestKnown));
        if (manager_) {
            family_ = family;
            break;
        }
    }
    if (!manager_) {
        return false;
    }
    device_ = wl_proxy_marshal_flags(manager_, managerGetDevice, family_->device,
                                     wl_proxy_get_version(manager_), 0, nullptr, connection_.seat());
    static const struct {
        void (*dataOffer)(void*, wl_proxy*, wl_proxy*);
        void (*selection)(void*, wl_proxy*, wl_proxy*);
        void (*finished)(void*, wl_proxy*);
        void (*primarySelection)(void*, wl_proxy*, wl_proxy*);
    } deviceListener{onDataOffer, onSelection, onFinished, onPrimarySelection};
    wl_proxy_add_listener(
        device_,
        reinterpret_cast<void (**)(void)>(const_cast<void*>(static_cast<const void*>(&deviceListener))),
        this);
    return true;
}

QString DataControlWorker::protocol() const {
    return family_ ? QString::fromLatin1(family_->global) : QString();
}

bool DataControlWorker::carriesPrimary() const {
    return device_ && wl_proxy_get_version(manager_) >= family_->primarySince;
}

// --- the compositor's reports ------------------------------------------------------------------

void DataControlWorker::onDataOffer(void* data, wl_proxy*, wl_proxy* offer) {
    auto* self = static_cast<DataControlWorker*>(data);
    static const struct { void (*offer)(void*, wl_proxy*, const char*); } offerListener{onOfferType};
    wl_proxy_add_listener(
        offer, reinterpret_cast<void (**)(void)>(const_cast<void*>(static_cast<const void*>(&offerListener))),
        self);
    self->announced_.emplace(offer, std::vector<QString>{});
}

void DataControlWorker::onOfferType(void* data, wl_proxy* offer, const char* type) {
    auto* self = static_cast<DataControlWorker*>(data);
    auto it = self->announced_.find(offer);
    if (it != self->announced_.end()) {
        const QString name = QString::fromUtf8(type);
        if (std::find(it->second.begin(), it->second.end(), name) == it->second.end()) {
            it->second.push_back(name);
        }
    }
}

void DataControlWorker::releaseOffer(wl_proxy*& offer) {
    if (offer) {
        destroyProxy(offer, offerDestroy);
        offer = nullptr;
    }
}

DataControlSelection DataControlWorker::adopt(wl_proxy*& slot, std::uint64_t& id, wl_proxy* offer) {
    releaseOffer(slot);
    DataControlSelection change;
    id = 0;
    if (offer) {
        auto it = announced_.find(offer);
        if (it != announced_.end()) {
            change.types = std::move(it->second);
            announced_.erase(it);
        }
        slot = offer;
        id = nextOfferId_++;
        change.offer = id;
    }
    return change;
}

void DataControlWorker::onSelection(void* data, wl_proxy*, wl_proxy* offer) {
    auto* self = static_cast<DataControlWorker*>(data);
    self->report(self->adopt(self->selection_, self->selectionId_, offer));
}

void DataControlWorker::onPrimarySelection(void* data, wl_proxy*, wl_proxy* offer) {
    auto* self = static_cast<DataControlWorker*>(data);
    DataControlSelection change = self->adopt(self->primary_, self->primaryId_, offer);
    if (self->reports_.primary) {
        self->reports_.primary(std::move(change));
    }
}

void DataControlWorker::onFinished(void* data, wl_proxy*) {
    // The seat went away: the device is no use any more.
    auto* self = static_cast<DataControlWorker*>(data);
    destroyProxy(self->device_, deviceDestroy);
    self->device_ = nullptr;
}

void DataControlWorker::report(DataControlSelection change) {
    if (pendingSets_.empty()) {
        reports_.selection(std::move(change));
    } else {
        heldBack_.push_back(std::move(change));
    }
}

void DataControlWorker::onSetProcessed(void* data, wl_callback* callback, std::uint32_t) {
    auto* self = static_cast<DataControlWorker*>(data);
    wl_callback_destroy(callback);
    if (self->pendingSets_.empty() || self->pendingSets_.front().sync != callback) {
        return;
    }
    const PendingSet set = self->pendingSets_.front();
    self->pendingSets_.pop_front();
    // Our set caused the last event before its sync came back, if it changed anything: emptying an
    // empty selection causes none.
    std::vector<DataControlSelection> held = std::exchange(self->heldBack_, {});
    if (!held.empty() && (!set.empties || held.back().offer == 0)) {
        held.back().ours = true;
    }
    for (DataControlSelection& change : held) {
        self->reports_.selection(std::move(change));
    }
}

// --- our sources --------------------------------------------------------------------------------

void DataControlWorker::setSelection(std::uint64_t id, std::int64_t count,
                                     std::shared_ptr<const Values> values) {
    if (!device_) {
        return;
    }
    wl_proxy* source = nullptr;
    if (values) {
        source = wl_proxy_marshal_flags(manager_, managerCreateSource, family_->source,
                                        wl_proxy_get_version(manager_), 0, nullptr);
        static const struct {
            void (*send)(void*, wl_proxy*, const char*, std::int32_t);
            void (*cancelled)(void*, wl_proxy*);
        } sourceListener{onSend, onCancelled};
        wl_proxy_add_listener(
            source,
            reinterpret_cast<void (**)(void)>(const_cast<void*>(static_cast<const void*>(&sourceListener))),
            this);
        for (const auto& [type, bytes] : *values) {
            wl_proxy_marshal_flags(source, sourceOffer, nullptr, wl_proxy_get_version(source), 0,
                                   type.toUtf8().constData());
        }
        sources_.emplace(source, Source{id, count, std::move(values)});
    }
    wl_proxy_marshal_flags(device_, deviceSetSelection, nullptr, wl_proxy_get_version(device_), 0, source);
    static const wl_callback_listener syncListener{onSetProcessed};
    wl_callback* sync = wl_display_sync(connection_.display());
    wl_callback_add_listener(sync, &syncListener, this);
    pendingSets_.push_back(PendingSet{sync, source == nullptr});
}

void DataControlWorker::onCancelled(void* data, wl_proxy* source) {
    auto* self = static_cast<DataControlWorker*>(data);
    auto it = self->sources_.find(source);
    if (it != self->sources_.end()) {
        self->reports_.cancelled(it->second.id);
        self->sources_.erase(it);
    }
    destroyProxy(source, sourceDestroy);
}

void DataControlWorker::onSend(void* data, wl_proxy* source, const char* type, std::int32_t fd) {
    auto* self = static_cast<DataControlWorker*>(data);
    auto it = self->sources_.find(source);
    const QString name = QString::fromUtf8(type);
    const Values* values = it != self->sources_.end() ? it->second.values.get() : nullptr;
    const auto value = values ? std::find_if(values->begin(), values->end(),
                                             [&](const auto& candidate) { return candidate.first == name; })
                              : Values::const_iterator{};
    if (!values || value == values->end()) {
        ::close(fd);
        return;
    }
    self->reports_.fetched(it->second.count);
    ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
    auto transfer = std::make_unique<Transfer>();
    Transfer* raw = transfer.get();
    raw->fd = fd;
    raw->bytes = value->second;
    raw->notifier = std::make_unique<QSocketNotifier>(fd, QSocketNotifier::Write);
    raw->timeout = std::make_unique<QTimer>();
    raw->timeout->setSingleShot(true);
    QObject::connect(raw->timeout.get(), &QTimer::timeout,
                     [self, raw] { self->finishTransfer(raw, std::nullopt); });
    QObject::connect(raw->notifier.get(), &QSocketNotifier::activated, [self, raw] {
        while (raw->offset < raw->bytes.size()) {
            const ssize_t written = ::write(raw->fd, raw->bytes.constData() + raw->offset,
                                            static_cast<std::size_t>(raw->bytes.size() - raw->offset));
            if (written < 0 && errno == EAGAIN) {
                raw->timeout->start(abandonedTransferMs);
                return;
            }
            if (written <= 0) {
                break; // the reader closed its end
            }
            raw->offset += written;
        }
        self->finishTransfer(raw, std::nullopt);
    });
    raw->timeout->start(abandonedTransferMs);
    self->transfers_.push_back(std::move(transfer));
}

// --- reading another client's offer -----------------------------------------------------------

void DataControlWorker::read(std::uint64_t offer, const QString& type, int timeoutMs,
                             std::function<void(std::optional<QByteArray>)> done) {
    int fds[2];
    wl_proxy* source = offer == 0              ? nullptr
                       : offer == selectionId_ ? selection_
                       : offer == primaryId_   ? primary_
                                               : nullptr;
    if (!source || ::pipe2(fds, O_CLOEXEC | O_NONBLOCK) != 0) {
        done(std::nullopt);
        return;
    }
    wl_proxy_marshal_flags(source, offerReceive, nullptr, wl_proxy_get_version(source), 0,
                           type.toUtf8().constData(), fds[1]);
    ::close(fds[1]);
    auto transfer = std::make_unique<Transfer>();
    Transfer* raw = transfer.get();
    raw->fd = fds[0];
    raw->incoming = true;
    raw->done = std::move(done);
    raw->notifier = std::make_unique<QSocketNotifier>(fds[0], QSocketNotifier::Read);
    raw->timeout = std::make_unique<QTimer>();
    raw->timeout->setSingleShot(true);
    QObject::connect(raw->timeout.get(), &QTimer::timeout,
                     [this, raw] { finishTransfer(raw, std::nullopt); });
    QObject::connect(raw->notifier.get(), &QSocketNotifier::activated, [this, raw] {
        char buffer[65536];
        for (;;) {
            const ssize_t got = ::read(raw->fd, buffer, sizeof(buffer));
            if (got > 0) {
                raw->bytes.append(buffer, got);
                continue;
            }
            if (got < 0 && errno == EAGAIN) {
                return;
            }
            // End of data, or an error: only a clean end is an answer.
            finishTransfer(raw, got == 0 ? std::optional<QByteArray>(raw->bytes) : std::nullopt);
            return;
        }
    });
    raw->timeout->start(timeoutMs);
    transfers_.push_back(std::move(transfer));
}

void DataControlWorker::finishTransfer(Transfer* transfer, std::optional<QByteArray> bytes) {
    auto it = std::find_if(transfers_.begin(), transfers_.end(),
                           [transfer](const auto& candidate) { return candidate.get() == transfer; });
    if (it == transfers_.end()) {
        return;
    }
    std::unique_ptr<Transfer> owned = std::move(*it);
    transfers_.erase(it);
    // Called from the notifier's or the timer's own signal: they are deleted once it returns.
    owned->notifier->setEnabled(false);
    owned->timeout->stop();
    owned->notifier.release()->deleteLater();
    owned->timeout.release()->deleteLater();
    ::close(owned->fd);
    if (owned->done) {
        owned->done(std::move(bytes));
    }
}

} // namespace parlune::wayland
