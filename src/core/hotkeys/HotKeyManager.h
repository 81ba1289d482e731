#pragma once

#include "core/async/WeakRef.h"
#include "core/platform/HotKeyService.h"

#include <cstdint>
#include <functional>
#include <optional>

namespace parlune {

struct HotKeyPreset;
struct HotKeyShortcut;

// Makes one shortcut a system-wide hotkey and runs an action on the main thread for each press,
// whatever application is in front. At most one registration at a time: registering always drops
// the previous one first, so a failed attempt never leaves an earlier hotkey active. Deciding what
// to do about a failure (fall back, report) is the caller's business.
class HotKeyManager {
public:
    using Action = std::function<void()>;

    // "PLHK" folded big-endian: the first letter ends up in the top byte.
    static constexpr std::uint32_t signature = (std::uint32_t('P') << 24) | (std::uint32_t('L') << 16) |
                                               (std::uint32_t('H') << 8) | std::uint32_t('K');
    static constexpr std::uint32_t hotKeyNumber = 1;

    explicit HotKeyManager(HotKeyService& service);
    ~HotKeyManager();
    HotKeyManager(const HotKeyManager&) = delete;
    HotKeyManager& operator=(const HotKeyManager&) = delete;

    // Throws HotKeyError::registrationFailed with the platform's status.
    void registerShortcut(const HotKeyShortcut& shortcut, Action action);
    void registerPreset(const HotKeyPreset& preset, Action action);
    // Removes whatever is registered; never fails.
    void unregister();

    bool isRegistered() const { return hotKeyRef_.has_value() && handlerRef_.has_value(); }
    bool hasAction() const { return static_cast<bool>(action_); }

    // The platform's handler: filters by signature and runs the process-wide shared action.
    // Always answers 0 (handled).
    static std::int32_t handleHotKeyEvent(std::optional<HotKeyIdentifier> identifier);
    // Whether a process-wide action is installed (for tests).
    static bool hasSharedAction();

private:
    void registerKey(std::uint32_t keyCode, std::uint32_t modifiers, Action action);

    HotKeyService& service_;
    std::optional<HotKeyService::Handle> hotKeyRef_;
    std::optional<HotKeyService::Handle> handlerRef_;
    Action action_;
    LifetimeToken lifetime_;
};

} // namespace parlune
