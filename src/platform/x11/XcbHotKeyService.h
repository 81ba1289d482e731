#pragma once

#include "core/platform/HotKeyService.h"

#include <QAbstractNativeEventFilter>

#include <xcb/xcb.h>

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace parlune::x11 {

// Global hotkeys as passive key grabs on the root window. A grab is taken for the key with its
// modifiers in every Caps Lock / Num Lock combination, so the shortcut works whatever the lock
// state. Grabs are checked: a combination another client holds fails at once with the X error
// code (10, BadAccess) as status. Presses arrive through Qt's native event filter on the main
// thread; auto-repeat of a held shortcut is delivered once. When the keyboard mapping changes
// (another layout, a remapped key) every shortcut is grabbed again on the key that now carries it.
class XcbHotKeyService final : public HotKeyService {
public:
    // Uses Qt's own X connection (the application must run on the xcb platform); null when there
    // is none, for example on a Wayland session.
    static std::unique_ptr<XcbHotKeyService> forApplication();

    XcbHotKeyService(xcb_connection_t* connection, xcb_window_t root);
    ~XcbHotKeyService() override;
    XcbHotKeyService(const XcbHotKeyService&) = delete;
    XcbHotKeyService& operator=(const XcbHotKeyService&) = delete;

    // Status for a key code that has no key on the current keyboard (X's BadValue).
    static constexpr std::int32_t noSuchKeyStatus = 2;

    Result installHandler(Handler handler) override;
    Result registerHotKey(std::uint32_t keyCode, std::uint32_t modifiers,
                          HotKeyIdentifier identifier) override;
    void unregisterHotKey(Handle hotKey) override;
    void removeHandler(Handle handler) override;

    // True when the event was a press or release of a registered hotkey (it is then consumed).
    bool handleEvent(const xcb_generic_event_t* event);

private:
    struct Grab {
        xcb_keycode_t keycode = 0; // XCB_NO_SYMBOL while no key carries the keysym
        std::uint16_t modifiers = 0;
        HotKeyIdentifier identifier;
        bool held = false;
        xcb_timestamp_t lastRelease = 0;
        std::uint32_t keysym = 0;
        std::vector<std::uint16_t> variants; // the modifier sets grabbed
    };
    class EventFilter;

    std::uint16_t numLockMask();
    std::vector<std::uint16_t> lockVariants(std::uint16_t modifiers);
    void ungrab(const Grab& grab);
    xcb_keycode_t keycodeFor(std::uint32_t keysym);
    void grabAgainAfterMappingChange();

    xcb_connection_t* connection_;
    xcb_window_t root_;
    std::unique_ptr<EventFilter> filter_;
    Handler handler_;
    Handle handlerHandle_ = 0;
    std::map<Handle, Grab> grabs_;
    Handle nextHandle_ = 1;
};

} // namespace parlune::x11
