#include "platform/wayland/VirtualKeyboardEvents.h"

#include "core/async/Continuation.h"
#include "core/async/Sleep.h"
#include "core/platform/Workspace.h"
#include "platform/wayland/VirtualKeyboard.h"
#include "platform/wayland/WaylandConnection.h"
#include "platform/x11/X11KeyTable.h"

#include <QTimer>

namespace parlune::wayland {

namespace {

// A compositor that stops answering has failed the chord.
constexpr int deliveryTimeoutMs = 2000;

} // namespace

VirtualKeyboardEvents::VirtualKeyboardEvents(WaylandConnection& connection, Workspace& workspace)
    : connection_(connection), workspace_(workspace) {
    connection_.postAndWait([this] {
        device_ = std::make_unique<VirtualKeyboard>(connection_);
        available_ = device_->start();
    });
}

VirtualKeyboardEvents::~VirtualKeyboardEvents() {
    connection_.postAndWait([this] { device_.reset(); });
}

QCoro::Task<bool> VirtualKeyboardEvents::sendCommandKey(std::uint16_t keyCode, ProcessId target,
                                                        std::stop_token token) {
    co_return co_await sendChord(KeyChord{keyCode, KeyChord::command}, target, std::move(token));
}

QCoro::Task<bool> VirtualKeyboardEvents::sendChord(KeyChord chord, ProcessId target, std::stop_token token) {
    throwIfCancelled(token);
    const std::optional<std::uint32_t> keysym = x11::X11KeyTable::keysymFor(chord.keyCode);
    if (!available_ || !keysym || connection_.isBroken()) {
        co_return false;
    }
    // The compositor types into whatever has focus: it must still be the target's window.
    const std::optional<RunningApplication> front = workspace_.frontmostApplication();
    if (!front || front->processIdentifier != target) {
        co_return false;
    }
    Continuation<bool> delivered;
    const bool control = (chord.modifiers & KeyChord::command) != 0;
    const bool shift = (chord.modifiers & KeyChord::shift) != 0;
    connection_.post([this, keysym = *keysym, control, shift, delivered] {
        const std::optional<std::uint32_t> key = device_->keyFor(keysym);
        const auto answer = [delivered](bool sent) {
            postToMainThread([delivered, sent]() mutable { delivered.resume(sent); });
        };
        if (!key) {
            answer(false);
            return;
        }
        device_->typeChord(*key, control, shift, answer);
    });
    QTimer timeout;
    timeout.setSingleShot(true);
    QObject::connect(&timeout, &QTimer::timeout, [delivered]() mutable { delivered.resume(false); });
    timeout.start(deliveryTimeoutMs);
    co_return co_await delivered.wait(token);
}

} // namespace parlune::wayland
