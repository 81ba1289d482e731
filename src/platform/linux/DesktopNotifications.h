#pragma once

#include <QObject>
#include <QString>

#include <cstdint>

namespace parlune {

// Status messages as desktop notifications (org.freedesktop.Notifications), for sessions where a
// floating panel cannot place itself (Wayland). Each message replaces the previous one and expires
// after `expireMilliseconds`. Calls are asynchronous: the notification server is never waited for,
// and a message sent before the server answered the previous one replaces it once it has.
class DesktopNotifications {
public:
    static constexpr int expireMilliseconds = 3000;

    DesktopNotifications();
    ~DesktopNotifications();
    DesktopNotifications(const DesktopNotifications&) = delete;
    DesktopNotifications& operator=(const DesktopNotifications&) = delete;

    void show(const QString& message);
    // The id the server gave the last notification; 0 before any answer.
    std::uint32_t lastId() const { return lastId_; }

private:
    void send();

    QObject guard_;
    std::uint32_t lastId_ = 0;
    bool inFlight_ = false;
    QString pending_;
    bool hasPending_ = false;
};

} // namespace parlune
