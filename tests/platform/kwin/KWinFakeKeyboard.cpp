#include "KWinFakeKeyboard.h"

#include "fake-input-client-protocol.h"

#include <wayland-client.h>

#include <vector>

namespace parlune::test {

namespace {
constexpr std::uint32_t pressed = 1;
constexpr std::uint32_t released = 0;
} // namespace

KWinFakeKeyboard::KWinFakeKeyboard(const QString& socketPath) {
    display_ = wl_display_connect(socketPath.toLocal8Bit().constData());
    if (!display_) {
        return;
    }
    static const wl_registry_listener listener{&KWinFakeKeyboard::onGlobal,
                                               &KWinFakeKeyboard::onGlobalRemove};
    registry_ = wl_display_get_registry(display_);
    wl_registry_add_listener(registry_, &listener, this);
    wl_display_roundtrip(display_);
    if (input_) {
        org_kde_kwin_fake_input_authenticate(input_, "parlune tests", "press the shortcut under test");
        wl_display_roundtrip(display_);
    }
}

KWinFakeKeyboard::~KWinFakeKeyboard() {
    if (input_) {
        org_kde_kwin_fake_input_destroy(input_);
    }
    if (registry_) {
        wl_registry_destroy(registry_);
    }
    if (display_) {
        wl_display_disconnect(display_);
    }
}

void KWinFakeKeyboard::onGlobal(void* data, wl_registry* registry, std::uint32_t name, const char* interface,
                                std::uint32_t version) {
    auto* self = static_cast<KWinFakeKeyboard*>(data);
    if (std::string_view(interface) == org_kde_kwin_fake_input_interface.name && version >= 4) {
        self->input_ = static_cast<org_kde_kwin_fake_input*>(
            wl_registry_bind(registry, name, &org_kde_kwin_fake_input_interface, 4));
    }
}

bool KWinFakeKeyboard::tap(std::initializer_list<std::uint32_t> keys) {
    if (!input_) {
        return false;
    }
    for (std::uint32_t key : keys) {
        org_kde_kwin_fake_input_keyboard_key(input_, key, pressed);
    }
    const std::vector<std::uint32_t> order(keys);
    for (auto it = order.rbegin(); it != order.rend(); ++it) {
        org_kde_kwin_fake_input_keyboard_key(input_, *it, released);
    }
    return wl_display_roundtrip(display_) >= 0;
}

} // namespace parlune::test
