#pragma once

#include "core/platform/HotKeyService.h"

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace parlune::testing {

// A hotkey service that records every call and delivers presses like the platform would: to the
// installed handler, with the identifier the hotkey was registered under. Keys listed in `takenKeys`
// are refused as if another program held them.
class FakeHotKeyService final : public HotKeyService {
public:
    // X's BadAccess: what the X11 port reports for a key another client grabbed.
    static constexpr std::int32_t alreadyTakenStatus = 10;

    std::vector<std::string> calls;
    std::int32_t installStatus = 0;
    std::int32_t registerStatus = 0;
    std::set<std::pair<std::uint32_t, std::uint32_t>> takenKeys; // (key code, modifiers)
    std::map<Handle, HotKeyIdentifier> hotKeys;
    std::map<Handle, std::pair<std::uint32_t, std::uint32_t>> keys;
    std::map<Handle, Handler> handlers;

    Result installHandler(Handler handler) override {
        calls.push_back("install");
        if (installStatus != 0) {
            return {installStatus, 0};
        }
        const Handle handle = next_++;
        handlers.emplace(handle, std::move(handler));
        return {0, handle};
    }
    Result registerHotKey(std::uint32_t keyCode, std::uint32_t modifiers,
                          HotKeyIdentifier identifier) override {
        calls.push_back("register " + std::to_string(keyCode) + "/" + std::to_string(modifiers));
        if (registerStatus != 0) {
            return {registerStatus, 0};
        }
        if (takenKeys.contains({keyCode, modifiers})) {
            return {alreadyTakenStatus, 0};
        }
        const Handle handle = next_++;
        hotKeys.emplace(handle, identifier);
        keys.emplace(handle, std::make_pair(keyCode, modifiers));
        return {0, handle};
    }
    void unregisterHotKey(Handle hotKey) override {
        calls.push_back("unregister");
        hotKeys.erase(hotKey);
        keys.erase(hotKey);
    }
    void removeHandler(Handle handler) override {
        calls.push_back("remove");
        handlers.erase(handler);
    }

    // Delivers a press of every registered hotkey to every installed handler; returns statuses.
    std::vector<std::int32_t> press() {
        std::vector<std::int32_t> statuses;
        auto snapshot = handlers;
        for (const auto& [h, hotKey] : std::map<Handle, HotKeyIdentifier>(hotKeys)) {
            for (auto& [hh, handler] : snapshot) {
                statuses.push_back(handler(hotKey));
            }
        }
        return statuses;
    }

private:
    Handle next_ = 1;
};

} // namespace parlune::testing
