#pragma once

#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace parlune {

// Keeps one observer connected to a ChangeSignal; destroying it (or calling reset) disconnects.
// Safe to outlive the signal.
class Subscription {
public:
    Subscription() = default;
    explicit Subscription(std::function<void()> disconnect) : disconnect_(std::move(disconnect)) {}
    Subscription(Subscription&& other) noexcept : disconnect_(std::exchange(other.disconnect_, {})) {}
    Subscription& operator=(Subscription&& other) noexcept {
        if (this != &other) {
            reset();
            disconnect_ = std::exchange(other.disconnect_, {});
        }
        return *this;
    }
    Subscription(const Subscription&) = delete;
    Subscription& operator=(const Subscription&) = delete;
    ~Subscription() { reset(); }

    void reset() {
        if (disconnect_) {
            std::exchange(disconnect_, {})();
        }
    }

private:
    std::function<void()> disconnect_;
};

// The observable side of a main-thread object: observers are called synchronously, in the order
// they connected, each time the owner emits. An observer may disconnect itself or others while
// being called; one connected during an emission is first called on the next.
template <typename... Args> class ChangeSignal {
public:
    using Observer = std::function<void(const Args&...)>;

    ChangeSignal() = default;
    ChangeSignal(const ChangeSignal&) = delete;
    ChangeSignal& operator=(const ChangeSignal&) = delete;

    [[nodiscard]] Subscription connect(Observer observer) {
        auto slot = std::make_shared<Slot>(Slot{std::move(observer), true});
        slots_->push_back(slot);
        std::weak_ptr<std::vector<std::shared_ptr<Slot>>> slots = slots_;
        std::weak_ptr<Slot> weakSlot = slot;
        return Subscription([slots, weakSlot] {
            auto list = slots.lock();
            auto target = weakSlot.lock();
            if (!list || !target) {
                return;
            }
            target->connected = false;
            std::erase(*list, target);
        });
    }

    void emit(const Args&... args) const {
        const std::vector<std::shared_ptr<Slot>> snapshot = *slots_;
        for (const std::shared_ptr<Slot>& slot : snapshot) {
            if (slot->connected) {
                slot->observer(args...);
            }
        }
    }

private:
    struct Slot {
        Observer observer;
        bool connected;
    };
    std::shared_ptr<std::vector<std::shared_ptr<Slot>>> slots_ =
        std::make_shared<std::vector<std::shared_ptr<Slot>>>();
};

} // namespace parlune
