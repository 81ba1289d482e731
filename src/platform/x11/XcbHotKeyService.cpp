#include "platform/x11/XcbHotKeyService.h"

#include "platform/x11/X11KeyTable.h"

#include <QCoreApplication>
#include <QGuiApplication>
#include <QThread>

#include <X11/keysym.h>
#include <xcb/xcb_keysyms.h>

#include <cstdlib>

namespace parlune::x11 {

class XcbHotKeyService::EventFilter final : public QAbstractNativeEventFilter {
public:
    explicit EventFilter(XcbHotKeyService& owner) : owner_(owner) {}
    bool nativeEventFilter(const QByteArray& eventType, void* message, qintptr*) override {
        if (eventType != "xcb_generic_event_t") {
            return false;
        }
        return owner_.handleEvent(static_cast<const xcb_generic_event_t*>(message));
    }

private:
    XcbHotKeyService& owner_;
};

std::unique_ptr<XcbHotKeyService> XcbHotKeyService::forApplication() {
    auto* app = qGuiApp;
    if (!app) {
        return nullptr;
    }
    auto* x11 = app->nativeInterface<QNativeInterface::QX11Application>();
    if (!x11 || !x11->connection()) {
        return nullptr;
    }
    xcb_connection_t* connection = x11->connection();
    const xcb_screen_t* screen = xcb_setup_roots_iterator(xcb_get_setup(connection)).data;
    if (!screen) {
        return nullptr;
    }
    return std::make_unique<XcbHotKeyService>(connection, screen->root);
}

XcbHotKeyService::XcbHotKeyService(xcb_connection_t* connection, xcb_window_t root)
    : connection_(connection), root_(root) {}

XcbHotKeyService::~XcbHotKeyService() {
    for (const auto& [handle, grab] : grabs_) {
        ungrab(grab);
    }
    xcb_flush(connection_);
    if (filter_ && QCoreApplication::instance()) {
        QCoreApplication::instance()->removeNativeEventFilter(filter_.get());
    }
}

HotKeyService::Result XcbHotKeyService::installHandler(Handler handler) {
    if (!QCoreApplication::instance()) {
        // Without an application there is no event loop that could deliver presses.
        return {noSuchKeyStatus, 0};
    }
    if (!filter_) {
        filter_ = std::make_unique<EventFilter>(*this);
        QCoreApplication::instance()->installNativeEventFilter(filter_.get());
    }
    handler_ = std::move(handler);
    handlerHandle_ = nextHandle_++;
    return {0, handlerHandle_};
}

void XcbHotKeyService::removeHandler(Handle handler) {
    if (handler == 0 || handler != handlerHandle_) {
        return;
    }
    handler_ = nullptr;
    handlerHandle_ = 0;
}

std::uint16_t XcbHotKeyService::numLockMask() {
    // Which of Mod1..Mod5 carries Num Lock depends on the keyboard mapping (usually Mod2).
    std::uint16_t mask = XCB_MOD_MASK_2;
    xcb_key_symbols_t* symbols = xcb_key_symbols_alloc(connection_);
    xcb_keycode_t* numLockCodes = symbols ? xcb_key_symbols_get_keycode(symbols, XK_Num_Lock) : nullptr;
    auto* reply = xcb_get_modifier_mapping_reply(connection_, xcb_get_modifier_mapping(connection_), nullptr);
    if (reply && numLockCodes) {
        const xcb_keycode_t* codes = xcb_get_modifier_mapping_keycodes(reply);
        const int perModifier = reply->keycodes_per_modifier;
        for (int modifier = 0; modifier < 8; ++modifier) {
            for (int i = 0; i < perModifier; ++i) {
                const xcb_keycode_t code = codes[modifier * perModifier + i];
                for (const xcb_keycode_t* n = numLockCodes; code != 0 && *n != XCB_NO_SYMBOL; ++n) {
                    if (*n == code) {
                        mask = static_cast<std::uint16_t>(1u << modifier);
                    }
                }
            }
        }
    }
    std::free(reply);
    std::free(numLockCodes);
    if (symbols) {
        xcb_key_symbols_free(symbols);
    }
    return mask;
}

std::vector<std::uint16_t> XcbHotKeyService::lockVariants(std::uint16_t modifiers) {
    const std::uint16_t numLock = numLockMask();
    return {modifiers, static_cast<std::uint16_t>(modifiers | XCB_MOD_MASK_LOCK),
            static_cast<std::uint16_t>(modifiers | numLock),
            static_cast<std::uint16_t>(modifiers | XCB_MOD_MASK_LOCK | numLock)};
}

HotKeyService::Result XcbHotKeyService::registerHotKey(std::uint32_t keyCode, std::uint32_t modifiers,
                                                       HotKeyIdentifier identifier) {
    const std::optional<std::uint32_t> keysym = X11KeyTable::keysymFor(keyCode);
    if (!keysym) {
        return {noSuchKeyStatus, 0};
    }
    const xcb_keycode_t keycode = keycodeFor(*keysym);
    if (keycode == XCB_NO_SYMBOL) {
        return {noSuchKeyStatus, 0};
    }

    Grab grab{keycode, X11KeyTable::modifierMaskFor(modifiers), identifier};
    grab.keysym = *keysym;
    grab.variants = lockVariants(grab.modifiers);
    std::vector<std::uint16_t> taken;
    for (std::uint16_t variant : grab.variants) {
        xcb_void_cookie_t cookie = xcb_grab_key_checked(connection_, 1, root_, variant, keycode,
                                                        XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC);
        if (xcb_generic_error_t* error = xcb_request_check(connection_, cookie)) {
            const std::int32_t status = error->error_code;
            std::free(error);
            for (std::uint16_t done : taken) {
                xcb_ungrab_key(connection_, keycode, root_, done);
            }
            xcb_flush(connection_);
            return {status, 0};
        }
        taken.push_back(variant);
    }
    const Handle handle = nextHandle_++;
    grabs_.emplace(handle, grab);
    return {0, handle};
}

xcb_keycode_t XcbHotKeyService::keycodeFor(std::uint32_t keysym) {
    // Allocated afresh each time: the table caches the mapping it was made with.
    xcb_key_symbols_t* symbols = xcb_key_symbols_alloc(connection_);
    xcb_keycode_t* codes = symbols ? xcb_key_symbols_get_keycode(symbols, keysym) : nullptr;
    const xcb_keycode_t keycode = codes ? codes[0] : XCB_NO_SYMBOL;
    std::free(codes);
    if (symbols) {
        xcb_key_symbols_free(symbols);
    }
    return keycode;
}

void XcbHotKeyService::ungrab(const Grab& grab) {
    if (grab.keycode == XCB_NO_SYMBOL) {
        return;
    }
    for (std::uint16_t variant : grab.variants) {
        xcb_ungrab_key(connection_, grab.keycode, root_, variant);
    }
}

void XcbHotKeyService::grabAgainAfterMappingChange() {
    for (auto& [handle, grab] : grabs_) {
        ungrab(grab);
        grab.keycode = keycodeFor(grab.keysym);
        grab.variants = lockVariants(grab.modifiers); // Num Lock may sit on another modifier now
        grab.held = false;
        if (grab.keycode == XCB_NO_SYMBOL) {
            continue; // no key carries it now; a later change may bring it back
        }
        for (std::uint16_t variant : grab.variants) {
            xcb_grab_key(connection_, 1, root_, variant, grab.keycode, XCB_GRAB_MODE_ASYNC,
                         XCB_GRAB_MODE_ASYNC);
        }
    }
    xcb_flush(connection_);
}

void XcbHotKeyService::unregisterHotKey(Handle hotKey) {
    auto it = grabs_.find(hotKey);
    if (it == grabs_.end()) {
        return;
    }
    ungrab(it->second);
    xcb_flush(connection_);
    grabs_.erase(it);
}

bool XcbHotKeyService::handleEvent(const xcb_generic_event_t* event) {
    const std::uint8_t type = event->response_type & 0x7f;
    if (type == XCB_MAPPING_NOTIFY) {
        if (reinterpret_cast<const xcb_mapping_notify_event_t*>(event)->request != XCB_MAPPING_POINTER) {
            grabAgainAfterMappingChange();
        }
        return false; // Qt updates its own key tables from it too
    }
    if (type != XCB_KEY_PRESS && type != XCB_KEY_RELEASE) {
        return false;
    }
    const auto* key = reinterpret_cast<const xcb_key_press_event_t*>(event);
    if (key->event != root_) {
        return false;
    }
    constexpr std::uint16_t chordMask =
        XCB_MOD_MASK_SHIFT | XCB_MOD_MASK_CONTROL | XCB_MOD_MASK_1 | XCB_MOD_MASK_4;
    for (auto& [handle, grab] : grabs_) {
        if (grab.keycode != key->detail) {
            continue;
        }
        if (type == XCB_KEY_RELEASE) {
            grab.held = false;
            grab.lastRelease = key->time;
            return true;
        }
        if ((key->state & chordMask) != grab.modifiers) {
            continue;
        }
        // Auto-repeat: with detectable repeat a held key sends presses without releases; without
        // it each repeat is a release and a press carrying the same time stamp.
        const bool repeat = grab.held || (grab.lastRelease != 0 && grab.lastRelease == key->time);
        grab.held = true;
        if (repeat) {
            return true;
        }
        Q_ASSERT(QThread::currentThread() == QCoreApplication::instance()->thread());
        if (handler_) {
            const HotKeyIdentifier identifier = grab.identifier;
            Handler handler = handler_; // the handler may unregister (and so destroy) this grab
            handler(identifier);
        }
        return true;
    }
    return false;
}

} // namespace parlune::x11
