#include "platform/wayland/SwayIpcWorkspace.h"

#include "platform/linux/DesktopLauncher.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QLocalSocket>

#include <cstring>

namespace parlune::wayland {

namespace {

// The IPC's framing: a magic string, then payload length and message type in native byte order.
constexpr char magic[] = {'i', '3', '-', 'i', 'p', 'c'};
constexpr qsizetype headerSize = sizeof(magic) + 8;
constexpr std::uint32_t subscribe = 2;
constexpr std::uint32_t getTree = 4;
constexpr std::uint32_t eventBit = 0x80000000u;
constexpr std::uint32_t windowEvent = eventBit | 3;

} // namespace

std::unique_ptr<SwayIpcWorkspace> SwayIpcWorkspace::connect() {
    const QString path = qEnvironmentVariable("SWAYSOCK");
    if (path.isEmpty()) {
        return nullptr;
    }
    auto socket = std::make_unique<QLocalSocket>();
    // A local socket connects at once or not at all: the compositor's socket is there or it is not.
    socket->connectToServer(path);
    if (socket->state() != QLocalSocket::ConnectedState && !socket->waitForConnected(200)) {
        return nullptr;
    }
    return std::unique_ptr<SwayIpcWorkspace>(new SwayIpcWorkspace(std::move(socket)));
}

SwayIpcWorkspace::SwayIpcWorkspace(std::unique_ptr<QLocalSocket> socket) : socket_(std::move(socket)) {
    QObject::connect(socket_.get(), &QLocalSocket::readyRead, [this] { readMessages(); });
    send(subscribe, QByteArrayLiteral("[\"window\"]"));
    send(getTree, {});
}

SwayIpcWorkspace::~SwayIpcWorkspace() {
    socket_->disconnect();
}

void SwayIpcWorkspace::send(std::uint32_t type, const QByteArray& payload) {
    QByteArray message(magic, sizeof(magic));
    const auto length = static_cast<std::uint32_t>(payload.size());
    message.append(reinterpret_cast<const char*>(&length), 4);
    message.append(reinterpret_cast<const char*>(&type), 4);
    message.append(payload);
    socket_->write(message);
    socket_->flush();
}

void SwayIpcWorkspace::readMessages() {
    buffer_.append(socket_->readAll());
    while (buffer_.size() >= headerSize) {
        if (std::memcmp(buffer_.constData(), magic, sizeof(magic)) != 0) {
            // Not the IPC we know: stop listening rather than guess.
            socket_->abort();
            buffer_.clear();
            focused_.reset();
            return;
        }
        std::uint32_t length = 0;
        std::uint32_t type = 0;
        std::memcpy(&length, buffer_.constData() + sizeof(magic), 4);
        std::memcpy(&type, buffer_.constData() + sizeof(magic) + 4, 4);
        if (buffer_.size() < headerSize + static_cast<qsizetype>(length)) {
            return;
        }
        const QByteArray payload = buffer_.mid(headerSize, length);
        buffer_.remove(0, headerSize + length);
        onMessage(type, payload);
    }
}

void SwayIpcWorkspace::onMessage(std::uint32_t type, const QByteArray& payload) {
    const QJsonObject message = QJsonDocument::fromJson(payload).object();
    if (type == getTree) {
        learnTree(message);
        ++focusReports_;
    } else if (type == windowEvent) {
        const QString change = message.value(QStringLiteral("change")).toString();
        const QJsonObject window = message.value(QStringLiteral("container")).toObject();
        learnWindow(window);
        if (change == QLatin1String("focus")) {
            learnTree(window);
            ++focusReports_;
        } else if (change == QLatin1String("close") && focused_ &&
                   focused_->processIdentifier == window.value(QStringLiteral("pid")).toInt()) {
            focused_.reset();
        }
    }
}

void SwayIpcWorkspace::learnWindow(const QJsonObject& node) {
    const ProcessId pid = node.value(QStringLiteral("pid")).toInt();
    if (pid <= 0) {
        return;
    }
    // Native windows carry an app_id; XWayland ones their X11 class, as on an X11 session.
    QString identifier = node.value(QStringLiteral("app_id")).toString();
    if (identifier.isEmpty()) {
        identifier = node.value(QStringLiteral("window_properties"))
                         .toObject()
                         .value(QStringLiteral("class"))
                         .toString();
    }
    if (!identifier.isEmpty()) {
        identifiers_[pid] = identifier;
    }
}

void SwayIpcWorkspace::learnTree(const QJsonObject& node) {
    learnWindow(node);
    if (node.value(QStringLiteral("focused")).toBool()) {
        const ProcessId pid = node.value(QStringLiteral("pid")).toInt();
        if (pid > 0) {
            focused_ = RunningApplication{pid, bundleIdentifier(pid)};
        } else {
            focused_.reset(); // an empty workspace
        }
    }
    for (const char* children : {"nodes", "floating_nodes"}) {
        for (const QJsonValue& child : node.value(QLatin1String(children)).toArray()) {
            learnTree(child.toObject());
        }
    }
}

std::optional<RunningApplication> SwayIpcWorkspace::frontmostApplication() {
    return focused_;
}

std::optional<QString> SwayIpcWorkspace::bundleIdentifier(ProcessId process) {
    const auto it = identifiers_.find(process);
    if (it == identifiers_.end()) {
        return std::nullopt;
    }
    return it->second;
}

bool SwayIpcWorkspace::openUrl(const QString& url) {
    return DesktopLauncher::openUrl(url);
}

bool SwayIpcWorkspace::openApplication(const QString& path) {
    return DesktopLauncher::openApplication(path);
}

} // namespace parlune::wayland
