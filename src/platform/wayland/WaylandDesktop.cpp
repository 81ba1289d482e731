#include "platform/wayland/WaylandDesktop.h"

#include "core/platform/HotKeyService.h"
#include "platform/atspi/AtspiAccessibility.h"
#include "platform/atspi/AtspiFocusWorkspace.h"
#include "platform/atspi/AtspiWorker.h"
#include "platform/linux/LinuxMemoryPressureSource.h"
#include "platform/wayland/DataControlPasteboard.h"
#include "platform/wayland/SwayIpcWorkspace.h"
#include "platform/wayland/VirtualKeyboardEvents.h"
#include "platform/wayland/WaylandConnection.h"
#include "platform/wayland/WaylandPrimarySelection.h"
#include "platform/x11/X11Pasteboard.h"
#include "platform/x11/XcbConnection.h"

namespace parlune::wayland {

WaylandDesktop::Result WaylandDesktop::connect(std::unique_ptr<WaylandConnection> connection,
                                               Options options) {
    auto desktop = std::unique_ptr<WaylandDesktop>(new WaylandDesktop());
    desktop->connection_ = std::move(connection);
    WaylandConnection& compositor = *desktop->connection_;
    WaylandFacts facts;
    facts.desktop = qEnvironmentVariable("XDG_CURRENT_DESKTOP");

    // One AT-SPI thread serves both the accessibility port and, without sway's IPC, the workspace.
    auto atspiWorker = atspi::AtspiWorker::start();
    desktop->workspace_ = SwayIpcWorkspace::connect();
    facts.swayIpc = desktop->workspace_ != nullptr;
    if (!facts.swayIpc) {
        desktop->workspace_ = std::make_unique<atspi::AtspiFocusWorkspace>(atspiWorker);
    }

    auto dataControl = std::make_unique<DataControlPasteboard>(compositor);
    facts.dataControl = dataControl->isUsable();
    if (facts.dataControl) {
        desktop->dataControl_ = dataControl.get();
        if (dataControl->carriesPrimary()) {
            desktop->primarySelection_ =
                std::make_unique<WaylandPrimarySelection>(*dataControl, *desktop->workspace_);
        }

        desktop->pasteboard_ = std::move(dataControl);
    } else if ((desktop->xwayland_ = x11::XcbConnection::open())) {
        auto clipboard = std::make_unique<x11::X11Pasteboard>(*desktop->xwayland_);
        facts.xwayland = clipboard->isUsable();
        desktop->xwaylandClipboard_ = clipboard.get();
        desktop->pasteboard_ = std::move(clipboard);
    }

    facts.portalShortcuts = options.portalShortcuts != nullptr;
    desktop->hotKeys_ = std::move(options.portalShortcuts);
    if (options.portalKeyboard) {
        desktop->keyboard_ = options.portalKeyboard(*desktop->workspace_);
    }
    facts.portalKeyboard = desktop->keyboard_ != nullptr;
    if (!facts.portalKeyboard) {
        auto virtualKeyboard = std::make_unique<VirtualKeyboardEvents>(compositor, *desktop->workspace_);
        facts.virtualKeyboard = virtualKeyboard->isAvailable();
        desktop->keyboard_ = std::move(virtualKeyboard);
    }

    desktop->capabilities_ = std::make_unique<WaylandCapabilities>(facts);
    if (std::optional<QString> problem = desktop->capabilities_->blockingProblem()) {
        return *problem;
    }
    KeyboardEvents* keyboard = desktop->keyboard_.get();
    const bool keysAvailable = desktop->capabilities_->keys() != WaylandCapabilities::Keys::none;
    desktop->accessibility_ = std::make_unique<atspi::AtspiAccessibility>(
        *desktop->workspace_, [keyboard, keysAvailable] { return keyboard && keysAvailable; },
        std::move(atspiWorker));
    desktop->memoryPressure_ = std::make_unique<LinuxMemoryPressureSource>();
    return desktop;
}

WaylandDesktop::~WaylandDesktop() {
    // Ports that use a connection go before it.
    memoryPressure_.reset();
    accessibility_.reset();
    hotKeys_.reset();
    keyboard_.reset();
    primarySelection_.reset();
    pasteboard_.reset();
    workspace_.reset();
    xwayland_.reset();
    connection_.reset();
}

PrimarySelection* WaylandDesktop::primarySelection() {
    return primarySelection_.get();
}

AccessibilityApi& WaylandDesktop::accessibility() {
    return *accessibility_;
}

MemoryPressureSource& WaylandDesktop::memoryPressure() {
    return *memoryPressure_;
}

std::optional<QString> WaylandDesktop::fetchOwnText() {
    if (dataControl_) {
        return dataControl_->fetchOwnText();
    }
    return xwaylandClipboard_ ? xwaylandClipboard_->fetchOwnText() : std::nullopt;
}

} // namespace parlune::wayland
