#include "platform/wayland/DataControlPasteboard.h"

#include "core/async/Continuation.h"
#include "core/async/RunUntilDone.h"
#include "platform/wayland/WaylandConnection.h"

#include <QMetaObject>

#include <algorithm>

namespace parlune::wayland {

namespace {

const QString utf8Text = QStringLiteral("text/plain;charset=utf-8");
const QString transientMarker = QStringLiteral("org.nspasteboard.TransientType");
const QString concealedMarker = QStringLiteral("org.nspasteboard.ConcealedType");
// The hint Linux clipboard managers honour for secrets; offered beside the concealed marker.
const QString passwordManagerHint = QStringLiteral("x-kde-passwordManagerHint");
// Where text is read from, best first; X11 names appear where XWayland clients wrote the clipboard.
const QString textTypes[] = {utf8Text, QStringLiteral("UTF8_STRING"), QStringLiteral("text/plain")};

bool hasType(const std::vector<std::pair<QString, QByteArray>>& values, const QString& type) {
    return std::any_of(values.begin(), values.end(), [&](const auto& value) { return value.first == type; });
}

} // namespace

DataControlPasteboard::DataControlPasteboard(WaylandConnection& connection)
    : connection_(connection), guard_(std::make_unique<QObject>()) {
    QObject* guard = guard_.get();
    const auto toMain = [guard](std::function<void()> work) {
        QMetaObject::invokeMethod(guard, std::move(work), Qt::QueuedConnection);
    };
    DataControlWorker::Reports reports{
        .selection =
            [this, toMain](DataControlSelection change) { toMain([this, change] { onSelection(change); }); },
        .cancelled = [this,
                      toMain](std::uint64_t source) { toMain([this, source] { onCancelled(source); }); },
        .fetched = [this, toMain](std::int64_t count) { toMain([this, count] { fetched_.insert(count); }); },
        .primary =
            [this, toMain](DataControlSelection change) {
                toMain([this, change] {
                    primary_ = change.offer != 0 ? std::optional<DataControlSelection>(change) : std::nullopt;
                    if (onPrimaryChanged_) {
                        onPrimaryChanged_();
                    }
                });
            },
    };
    connection_.postAndWait([&] {
        worker_ = std::make_unique<DataControlWorker>(connection_, std::move(reports));
        usable_ = worker_->start();
        protocol_ = worker_->protocol();
        carriesPrimary_ = usable_ && worker_->carriesPrimary();
    });
}

DataControlPasteboard::~DataControlPasteboard() {
    connection_.postAndWait([this] { worker_.reset(); });
}

// --- the worker's reports -------------------------------------------------------------------------

void DataControlPasteboard::onSelection(const DataControlSelection& change) {
    if (!change.ours) {
        ++changeCount_;
    }
    foreign_ = change.offer != 0 ? std::optional<DataControlSelection>(change) : std::nullopt;
}

void DataControlPasteboard::onCancelled(std::uint64_t source) {
    if (owned_ && owned_->source == source) {
        owned_.reset();
    }
}

// --- reading -----------------------------------------------------------------------------------

const std::vector<std::pair<QString, QByteArray>>* DataControlPasteboard::ownedValues() const {
    return owned_ ? &owned_->values : nullptr;
}

int DataControlPasteboard::itemCount() const {
    if (owned_) {
        return owned_->values.empty() ? 0 : 1;
    }
    return foreign_ ? 1 : 0;
}

std::vector<QString> DataControlPasteboard::types(int index) const {
    return runUntilDone(const_cast<DataControlPasteboard*>(this)->typesAsync(index));
}

std::optional<QByteArray> DataControlPasteboard::data(int index, const QString& type) const {
    return runUntilDone(const_cast<DataControlPasteboard*>(this)->dataAsync(index, type));
}

std::optional<QString> DataControlPasteboard::string() const {
    return runUntilDone(const_cast<DataControlPasteboard*>(this)->stringAsync());
}

QCoro::Task<std::vector<QString>> DataControlPasteboard::typesAsync(int index) {
    std::vector<QString> names;
    if (index != 0) {
        co_return names;
    }
    if (const auto* values = ownedValues()) {
        for (const auto& value : *values) {
            names.push_back(value.first);
        }
    } else if (foreign_) {
        names = foreign_->types;
    }
    co_return names;
}

QCoro::Task<std::optional<QByteArray>> DataControlPasteboard::dataAsync(int index, QString type) {
    if (index != 0) {
        co_return std::nullopt;
    }
    if (const auto* values = ownedValues()) {
        for (const auto& [name, bytes] : *values) {
            if (name == type) {
                co_return bytes;
            }
        }
        co_return std::nullopt;
    }
    if (!foreign_ ||
        std::find(foreign_->types.begin(), foreign_->types.end(), type) == foreign_->types.end()) {
        co_return std::nullopt;
    }
    const std::int64_t count = changeCount_;
    if (cache_.count != count) {
        cache_ = ReadCache{count, {}};
    }
    if (auto it = cache_.data.find(type); it != cache_.data.end()) {
        co_return it->second;
    }
    std::optional<QByteArray> bytes = co_await readOffer(foreign_->offer, type);
    // What was read belongs to the contents it was asked of: kept, and given, only while they last.
    if (changeCount_ != count) {
        co_return std::nullopt;
    }
    if (cache_.count == count) {
        cache_.data.emplace(type, bytes);
    }
    co_return bytes;
}

QCoro::Task<std::optional<QByteArray>> DataControlPasteboard::readOffer(std::uint64_t offer, QString type) {
    Continuation<std::optional<QByteArray>> answer;
    connection_.post([this, offer, type, answer] {
        worker_->read(offer, type, readTimeoutMs, [answer](std::optional<QByteArray> bytes) mutable {
            postToMainThread(
                [answer, bytes = std::move(bytes)]() mutable { answer.resume(std::move(bytes)); });
        });
    });
    co_return co_await answer.wait();
}

QCoro::Task<std::optional<QString>> DataControlPasteboard::primaryTextAsync() {
    if (!primary_) {
        co_return std::nullopt;
    }
    const std::uint64_t offer = primary_->offer;
    for (const QString& type : textTypes) {
        if (std::find(primary_->types.begin(), primary_->types.end(), type) == primary_->types.end()) {
            continue;
        }
        const std::optional<QByteArray> bytes = co_await readOffer(offer, type);
        if (!primary_ || primary_->offer != offer) {
            co_return std::nullopt;
        }
        if (bytes) {
            co_return QString::fromUtf8(*bytes);
        }
    }
    co_return std::nullopt;
}

QCoro::Task<std::optional<QString>> DataControlPasteboard::stringAsync() {
    const std::vector<QString> offered = co_await typesAsync(0);
    for (const QString& type : textTypes) {
        if (std::find(offered.begin(), offered.end(), type) != offered.end()) {
            if (std::optional<QByteArray> bytes = co_await dataAsync(0, type)) {
                co_return QString::fromUtf8(*bytes);
            }
        }
    }
    co_return std::nullopt;
}

QString DataControlPasteboard::plainTextType() const {
    return utf8Text;
}

std::optional<QString> DataControlPasteboard::fetchOwnText() {
    if (!owned_) {
        return std::nullopt;
    }
    for (const QString& type : textTypes) {
        for (const auto& [name, bytes] : owned_->values) {
            if (name == type) {
                fetched_.insert(owned_->count);
                return QString::fromUtf8(bytes);
            }
        }
    }
    return std::nullopt;
}

// --- writing -----------------------------------------------------------------------------------

void DataControlPasteboard::clearContents() {
    ++changeCount_;
    owned_.reset();
    connection_.post([this] { worker_->setSelection(0, 0, nullptr); });
}

bool DataControlPasteboard::writeItems(const std::vector<PasteboardItem>& items) {
    if (!usable_) {
        return false;
    }
    std::vector<std::pair<QString, QByteArray>> values;
    for (const PasteboardItem& item : items) {
        for (const auto& value : item.values) {
            if (!value.first.isEmpty() && !hasType(values, value.first)) {
                values.push_back(value);
            }
        }
    }
    if (values.empty()) {
        clearContents();
        return true;
    }
    if (hasType(values, concealedMarker) && !hasType(values, passwordManagerHint)) {
        values.emplace_back(passwordManagerHint, QByteArrayLiteral("secret"));
    }
    // Our own text is offered under every name a reader may ask for (XWayland's bridge, older
    // toolkits); a restored clipboard keeps exactly the types it had.
    if (hasType(values, transientMarker)) {
        for (const QString& type : textTypes) {
            const auto text = std::find_if(values.begin(), values.end(), [](const auto& value) {
                return std::find(std::begin(textTypes), std::end(textTypes), value.first) !=
                       std::end(textTypes);
            });
            if (text != values.end() && !hasType(values, type)) {
                values.emplace_back(type, text->second);
            }
        }
    }
    ++changeCount_;
    const std::uint64_t source = nextSource_++;
    owned_ = Owned{values, changeCount_, source};
    auto shared = std::make_shared<const DataControlWorker::Values>(std::move(values));
    connection_.post(
        [this, source, count = changeCount_, shared] { worker_->setSelection(source, count, shared); });
    return true;
}

} // namespace parlune::wayland
