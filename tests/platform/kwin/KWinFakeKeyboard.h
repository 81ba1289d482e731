#pragma once

#include <QString>

#include <cstdint>
#include <initializer_list>

struct wl_display;
struct wl_registry;
struct org_kde_kwin_fake_input;

namespace parlune::test {

// Presses keys in a KWin session as a keyboard would, through KWin's fake-input protocol: the
// events go through KWin's whole input path, global shortcuts included. Key codes are Linux evdev
// codes (KEY_LEFTALT = 56, KEY_SPACE = 57, ...).
class KWinFakeKeyboard {
public:
    static constexpr std::uint32_t leftAlt = 56;
    static constexpr std::uint32_t space = 57;
    static constexpr std::uint32_t r = 19;
    static constexpr std::uint32_t leftControl = 29;
    static constexpr std::uint32_t leftShift = 42;
    static constexpr std::uint32_t home = 102;
    static constexpr std::uint32_t right = 106;

    explicit KWinFakeKeyboard(const QString& socketPath);
    ~KWinFakeKeyboard();
    KWinFakeKeyboard(const KWinFakeKeyboard&) = delete;
    KWinFakeKeyboard& operator=(const KWinFakeKeyboard&) = delete;

    // False when the compositor offers no fake input of version 4 (keyboard keys) to this client.
    bool isReady() const { return input_ != nullptr; }

    // Presses the keys in order, then releases them in reverse order; returns once the compositor
    // has seen every event.
    bool tap(std::initializer_list<std::uint32_t> keys);

private:
    static void onGlobal(void* data, wl_registry* registry, std::uint32_t name, const char* interface,
                         std::uint32_t version);
    static void onGlobalRemove(void*, wl_registry*, std::uint32_t) {}

    wl_display* display_ = nullptr;
    wl_registry* registry_ = nullptr;
    org_kde_kwin_fake_input* input_ = nullptr;
};

} // namespace parlune::test
