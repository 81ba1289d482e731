#pragma once

#include "core/platform/Workspace.h"

#include <QByteArray>
#include <QJsonObject>
#include <QString>

#include <map>
#include <memory>
#include <optional>

class QLocalSocket;

namespace parlune::wayland {

// The frontmost application on sway (and other compositors that speak its IPC), which Wayland
// itself does not tell clients: the focused window's process and app_id (the X11 class for
// XWayland windows) from the compositor's window events. The socket is read on the event loop, so
// answers come from what the compositor last reported and never wait for it.
class SwayIpcWorkspace final : public Workspace {
public:
    // Connects to $SWAYSOCK; null when it is not set or refuses.
    static std::unique_ptr<SwayIpcWorkspace> connect();
    ~SwayIpcWorkspace() override;
    SwayIpcWorkspace(const SwayIpcWorkspace&) = delete;
    SwayIpcWorkspace& operator=(const SwayIpcWorkspace&) = delete;

    std::optional<RunningApplication> frontmostApplication() override;
    std::optional<QString> bundleIdentifier(ProcessId process) override;
    bool openUrl(const QString& url) override;
    bool openApplication(const QString& path) override;

    // How many focus reports have arrived; tests wait for the next one.
    int focusReports() const { return focusReports_; }

private:
    explicit SwayIpcWorkspace(std::unique_ptr<QLocalSocket> socket);
    void send(std::uint32_t type, const QByteArray& payload);
    void readMessages();
    void onMessage(std::uint32_t type, const QByteArray& payload);
    void learnTree(const QJsonObject& node);
    void learnWindow(const QJsonObject& node);

    std::unique_ptr<QLocalSocket> socket_;
    QByteArray buffer_;
    std::optional<RunningApplication> focused_;
    std::map<ProcessId, QString> identifiers_;
    int focusReports_ = 0;
};

} // namespace parlune::wayland
