#pragma once

#include <QString>

#include <functional>
#include <memory>

namespace parlune {

// One running program per user session, reachable on the session bus as org.parlune.Parlune at
// /org/parlune/Parlune: a second launch asks the first to show its settings, and a command bound
// in the desktop's own keyboard settings asks it to rewrite the selection.
class SessionInstance {
public:
    static constexpr const char* serviceName = "org.parlune.Parlune";
    static constexpr const char* objectPath = "/org/parlune/Parlune";
    static constexpr const char* interfaceName = "org.parlune.Parlune";

    struct Handlers {
        std::function<void()> showSettings;
        std::function<void()> rewriteSelection;
    };

    SessionInstance();
    ~SessionInstance();
    SessionInstance(const SessionInstance&) = delete;
    SessionInstance& operator=(const SessionInstance&) = delete;

    enum class Claim { claimed, alreadyRunning, noSessionBus };
    // Takes the name and serves the calls on the main thread.
    Claim claim(Handlers handlers);

    // Calls `method` ("ShowSettings", "RewriteSelection") on the running instance; an empty
    // string on success, else the reason.
    static QString callRunningInstance(const QString& method, int timeoutMs = 3000);

private:
    class Object;
    std::unique_ptr<Object> object_;
    bool registered_ = false;
};

} // namespace parlune
