#pragma once

#include <QObject>

#include <functional>
#include <memory>

class QSocketNotifier;

namespace parlune {

// Tells the application when the system comes back from a transition that can drop a global
// shortcut or stale a check: resume from suspend (logind's PrepareForSleep(false)), the session
// unlocked or active again, and the wall clock set. Each source that is missing (no system bus,
// no logind) is simply not watched.
class SystemTransitionWatcher : public QObject {
    Q_OBJECT
public:
    enum class Transition { wokeFromSleep, sessionActive, clockChanged };
    using Handler = std::function<void(Transition)>;

    explicit SystemTransitionWatcher(Handler handler);
    ~SystemTransitionWatcher() override;

private Q_SLOTS:
    void prepareForSleep(bool sleeping);
    void sessionUnlocked();
    void sessionPropertiesChanged(const QString& interface, const QVariantMap& changed,
                                  const QStringList& invalidated);

private:
    void armClockWatch();
    void onClockFired();

    Handler handler_;
    int clockFd_ = -1;
    std::unique_ptr<QSocketNotifier> clockNotifier_;
};

} // namespace parlune
