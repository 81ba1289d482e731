#include "platform/atspi/AtspiFocusWorkspace.h"

#include "platform/atspi/AtspiReferences.h"
#include "platform/atspi/AtspiWorker.h"
#include "platform/linux/DesktopLauncher.h"

#include <atspi/atspi.h>

#include <QFile>
#include <QFileInfo>

#include <array>
#include <mutex>

namespace parlune::atspi {

namespace {

// The events that move the user's attention: a window raised, an object focused inside one.
constexpr const char* activateEvent = "window:activate";
constexpr const char* deactivateEvent = "window:deactivate";
constexpr const char* focusEvent = "object:state-changed:focused";
constexpr std::array events{activateEvent, deactivateEvent, focusEvent};

QString takeString(gchar* text) {
    QString result = text ? QString::fromUtf8(text) : QString();
    g_free(text);
    return result;
}

} // namespace

struct AtspiFocusWorkspace::State {
    mutable std::mutex mutex;
    std::optional<RunningApplication> front;
    QString toolkit;
    int reports = 0;
    // Touched on the worker only.
    AtspiEventListener* listener = nullptr;

    // On the worker: the application of `accessible` becomes the frontmost one.
    void takeFocus(AtspiAccessible* accessible) {
        GError* error = nullptr;
        const guint process = atspi_accessible_get_process_id(accessible, &error);
        if (failed(error) || process == 0) {
            return;
        }
        QString toolkitName;
        Ref<AtspiAccessible> owner(atspi_accessible_get_application(accessible, &error));
        if (!failed(error) && owner) {
            toolkitName = takeString(atspi_accessible_get_toolkit_name(owner.get(), &error));
            failed(error);
        }
        const auto pid = static_cast<ProcessId>(process);
        RunningApplication application{pid, executableName(pid)};
        std::lock_guard lock(mutex);
        front = std::move(application);
        toolkit = std::move(toolkitName);
        ++reports;
    }

    // On the worker: a window of the frontmost application lost activation without another
    // taking it yet (the user went to a window that is not on the bus).
    void loseFocus(AtspiAccessible* accessible) {
        GError* error = nullptr;
        const guint process = atspi_accessible_get_process_id(accessible, &error);
        if (failed(error)) {
            return;
        }
        std::lock_guard lock(mutex);
        if (front && front->processIdentifier == static_cast<ProcessId>(process)) {
            front.reset();
            toolkit.clear();
            ++reports;
        }
    }

    // On the worker: the application whose window is active now, before any event has arrived.
    void findActiveWindow() {
        Ref<AtspiAccessible> desktop(atspi_get_desktop(0));
        if (!desktop) {
            return;
        }
        GError* error = nullptr;
        const gint applications = atspi_accessible_get_child_count(desktop.get(), &error);
        for (gint i = 0; !failed(error) && i < applications; ++i) {
            Ref<AtspiAccessible> application(atspi_accessible_get_child_at_index(desktop.get(), i, &error));
            const gint windows =
                application ? atspi_accessible_get_child_count(application.get(), &error) : 0;
            for (gint j = 0; !failed(error) && j < windows; ++j) {
                Ref<AtspiAccessible> window(
                    atspi_accessible_get_child_at_index(application.get(), j, &error));
                if (window && hasState(window.get(), ATSPI_STATE_ACTIVE)) {
                    takeFocus(window.get());
                    return;
                }
            }
        }
        failed(error);
    }

    static void onEvent(AtspiEvent* event, void* data) {
        auto* state = static_cast<State*>(data);
        if (event->source) {
            const QLatin1StringView type(event->type);
            if (type == QLatin1StringView(deactivateEvent)) {
                state->loseFocus(event->source);
            } else if (type != QLatin1StringView(focusEvent) || event->detail1 != 0) {
                state->takeFocus(event->source);
            }
        }
        g_boxed_free(ATSPI_TYPE_EVENT, event);
    }
};

AtspiFocusWorkspace::AtspiFocusWorkspace(std::shared_ptr<AtspiWorker> worker)
    : worker_(std::move(worker)), state_(std::make_shared<State>()) {
    worker_->post([state = state_, worker = worker_.get()] {
        if (!worker->waitForBus(0)) {
            return;
        }
        state->listener = atspi_event_listener_new(&State::onEvent, state.get(), nullptr);
        for (const char* event : events) {
            GError* error = nullptr;
            atspi_event_listener_register(state->listener, event, &error);
            failed(error);
        }
        state->findActiveWindow();
    });
}

AtspiFocusWorkspace::~AtspiFocusWorkspace() {
    // The listener goes on the worker, before the state its callback points at.
    worker_->post([state = state_] {
        if (!state->listener) {
            return;
        }
        for (const char* event : events) {
            GError* error = nullptr;
            atspi_event_listener_deregister(state->listener, event, &error);
            failed(error);
        }
        g_object_unref(state->listener);
        state->listener = nullptr;
    });
}

std::optional<RunningApplication> AtspiFocusWorkspace::frontmostApplication() {
    std::lock_guard lock(state_->mutex);
    return state_->front;
}

QString AtspiFocusWorkspace::frontmostToolkit() const {
    std::lock_guard lock(state_->mutex);
    return state_->toolkit;
}

int AtspiFocusWorkspace::focusReports() const {
    std::lock_guard lock(state_->mutex);
    return state_->reports;
}

std::optional<QString> AtspiFocusWorkspace::bundleIdentifier(ProcessId process) {
    return executableName(process);
}

std::optional<QString> AtspiFocusWorkspace::executableName(ProcessId process) {
    if (process <= 0) {
        return std::nullopt;
    }
    const QString proc = QStringLiteral("/proc/%1/").arg(process);
    QString name = QFileInfo(QFile::symLinkTarget(proc + QStringLiteral("exe"))).fileName();
    // An executable replaced by an update since the process started.
    name.remove(QStringLiteral(" (deleted)"));
    if (name.isEmpty()) {
        // Another user's process: the kernel still tells its short name.
        QFile comm(proc + QStringLiteral("comm"));
        if (comm.open(QIODevice::ReadOnly)) {
            name = QString::fromUtf8(comm.readAll()).trimmed();
        }
    }
    return name.isEmpty() ? std::nullopt : std::optional<QString>(name);
}

bool AtspiFocusWorkspace::openUrl(const QString& url) {
    return DesktopLauncher::openUrl(url);
}

bool AtspiFocusWorkspace::openApplication(const QString& path) {
    return DesktopLauncher::openApplication(path);
}

} // namespace parlune::atspi
