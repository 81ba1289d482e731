#pragma once

#include <cstdint>
#include <functional>
#include <optional>

namespace parlune {

// Identifies one registered hotkey: the program's four-character signature and a number.
struct HotKeyIdentifier {
    std::uint32_t signature = 0;
    std::uint32_t id = 0;

    friend bool operator==(const HotKeyIdentifier&, const HotKeyIdentifier&) = default;
};

// The desktop's global hotkey facility. Key codes and modifier masks are the stored values
// (macOS virtual key codes, Carbon modifier masks); each platform translates them itself.
// Every call happens on the main thread, and presses are delivered there.
class HotKeyService {
public:
    // Opaque, never 0 for a live registration.
    using Handle = std::uint64_t;

    struct Result {
        std::int32_t status = 0; // 0 on success, else the platform's status code
        Handle handle = 0;
    };

    // Called for every delivered press; nullopt when the event carries no identifier.
    // The returned status is handed back to the platform.
    using Handler = std::function<std::int32_t(std::optional<HotKeyIdentifier>)>;

    virtual ~HotKeyService() = default;

    virtual Result installHandler(Handler handler) = 0;
    virtual Result registerHotKey(std::uint32_t keyCode, std::uint32_t modifiers,
                                  HotKeyIdentifier identifier) = 0;
    virtual void unregisterHotKey(Handle hotKey) = 0;
    virtual void removeHandler(Handle handler) = 0;
};

} // namespace parlune
