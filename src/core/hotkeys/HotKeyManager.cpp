#include "core/hotkeys/HotKeyManager.h"

#include "core/hotkeys/HotKeyError.h"
#include "core/hotkeys/HotKeyPreset.h"
#include "core/hotkeys/HotKeyShortcut.h"

#include <QCoreApplication>
#include <QThread>

#include <cstdlib>

namespace parlune {

namespace {

// The platform's handler receives no context of its own, so the live manager is reached through
// this one process-wide action. Main thread only.
std::function<void()>& sharedAction() {
    static std::function<void()> action;
    return action;
}

void requireMainThread() {
    const QCoreApplication* app = QCoreApplication::instance();
    if (app && QThread::currentThread() != app->thread()) {
        // A hotkey action off the main thread would race every core object: a programming error.
        std::abort();
    }
}

} // namespace

HotKeyManager::HotKeyManager(HotKeyService& service) : service_(service) {}

HotKeyManager::~HotKeyManager() {
    unregister();
}

void HotKeyManager::registerShortcut(const HotKeyShortcut& shortcut, Action action) {
    registerKey(shortcut.keyCode, shortcut.carbonModifiers, std::move(action));
}

void HotKeyManager::registerPreset(const HotKeyPreset& preset, Action action) {
    registerKey(preset.keyCode, preset.carbonModifiers, std::move(action));
}

void HotKeyManager::registerKey(std::uint32_t keyCode, std::uint32_t modifiers, Action action) {
    unregister();
    action_ = std::move(action);
    sharedAction() = [weak = lifetime_.weak(this)] {
        if (HotKeyManager* manager = weak.lock(); manager && manager->action_) {
            Action run = manager->action_; // the action may re-register and replace action_
            run();
        }
    };

    const HotKeyService::Result handler = service_.installHandler(&HotKeyManager::handleHotKeyEvent);
    if (handler.status != 0) {
        throw HotKeyError::registrationFailed(handler.status);
    }
    handlerRef_ = handler.handle;

    const HotKeyService::Result hotKey =
        service_.registerHotKey(keyCode, modifiers, HotKeyIdentifier{signature, hotKeyNumber});
    if (hotKey.status != 0) {
        unregister();
        throw HotKeyError::registrationFailed(hotKey.status);
    }
    hotKeyRef_ = hotKey.handle;
}

void HotKeyManager::unregister() {
    if (hotKeyRef_) {
        service_.unregisterHotKey(*hotKeyRef_);
        hotKeyRef_.reset();
    }
    if (handlerRef_) {
        service_.removeHandler(*handlerRef_);
        handlerRef_.reset();
    }
    sharedAction() = nullptr;
    action_ = nullptr;
}

std::int32_t HotKeyManager::handleHotKeyEvent(std::optional<HotKeyIdentifier> identifier) {
    if (!identifier || identifier->signature != signature) {
        return 0;
    }
    requireMainThread();
    if (sharedAction()) {
        std::function<void()> action = sharedAction();
        action();
    }
    return 0;
}

bool HotKeyManager::hasSharedAction() {
    return static_cast<bool>(sharedAction());
}

} // namespace parlune
