#include "platform/x11/X11Desktop.h"

#include "platform/atspi/AtspiAccessibility.h"
#include "platform/linux/LinuxMemoryPressureSource.h"
#include "platform/x11/EwmhWorkspace.h"
#include "platform/x11/X11Pasteboard.h"
#include "platform/x11/X11PrimarySelection.h"
#include "platform/x11/XTestKeyboardEvents.h"
#include "platform/x11/XcbConnection.h"
#include "platform/x11/XcbHotKeyService.h"

namespace parlune::x11 {

X11Desktop::Result X11Desktop::connect() {
    auto desktop = std::unique_ptr<X11Desktop>(new X11Desktop());
    desktop->connection_ = XcbConnection::open();
    desktop->hotKeys_ = XcbHotKeyService::forApplication();
    if (!desktop->connection_ || !desktop->hotKeys_) {
        return QStringLiteral("Parlune could not connect to the X11 display.");
    }
    XcbConnection& connection = *desktop->connection_;
    desktop->workspace_ = std::make_unique<EwmhWorkspace>(connection);
    desktop->pasteboard_ = std::make_unique<X11Pasteboard>(connection);
    desktop->primarySelection_ = std::make_unique<X11PrimarySelection>(connection, *desktop->workspace_);
    desktop->keyboard_ = std::make_unique<XTestKeyboardEvents>(connection, *desktop->workspace_);
    if (!desktop->pasteboard_->isUsable()) {
        return QStringLiteral(
            "The X server lacks the XFixes extension, which Parlune needs to watch the clipboard.");
    }
    if (!desktop->keyboard_->isAvailable()) {
        return QStringLiteral(
            "The X server lacks the XTest extension, which Parlune needs to copy and paste.");
    }
    XTestKeyboardEvents* keyboard = desktop->keyboard_.get();
    desktop->accessibility_ = std::make_unique<atspi::AtspiAccessibility>(
        *desktop->workspace_, [keyboard] { return keyboard->isAvailable(); });
    desktop->memoryPressure_ = std::make_unique<LinuxMemoryPressureSource>();
    return desktop;
}

HotKeyService* X11Desktop::hotKeys() {
    return hotKeys_.get();
}
Pasteboard& X11Desktop::pasteboard() {
    return *pasteboard_;
}
PrimarySelection* X11Desktop::primarySelection() {
    return primarySelection_.get();
}
KeyboardEvents& X11Desktop::keyboard() {
    return *keyboard_;
}
Workspace& X11Desktop::workspace() {
    return *workspace_;
}
AccessibilityApi& X11Desktop::accessibility() {
    return *accessibility_;
}
MemoryPressureSource& X11Desktop::memoryPressure() {
    return *memoryPressure_;
}
std::optional<QString> X11Desktop::fetchOwnText() {
    return pasteboard_->fetchOwnText();
}

X11Desktop::~X11Desktop() {
    // Ports that use the connection go before it.
    memoryPressure_.reset();
    accessibility_.reset();
    keyboard_.reset();
    primarySelection_.reset();
    pasteboard_.reset();
    workspace_.reset();
    hotKeys_.reset();
    connection_.reset();
}

} // namespace parlune::x11
