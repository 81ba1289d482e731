#pragma once

#include <memory>

namespace parlune {

template <typename T> class WeakRef;

// Member of a main-thread object whose tasks must not keep it alive: tasks hold a WeakRef and
// re-check it after every suspension. Destroying the owner destroys the token.
class LifetimeToken {
public:
    LifetimeToken() : alive_(std::make_shared<char>(0)) {}
    LifetimeToken(const LifetimeToken&) = delete;
    LifetimeToken& operator=(const LifetimeToken&) = delete;

    template <typename T> WeakRef<T> weak(T* owner) const { return WeakRef<T>(alive_, owner); }

private:
    std::shared_ptr<char> alive_;
};

// A non-owning reference that answers null once its owner is gone. Main thread only: between two
// suspensions the owner cannot disappear, so a non-null lock() stays valid until the next co_await.
template <typename T> class WeakRef {
public:
    WeakRef() = default;
    T* lock() const { return alive_.expired() ? nullptr : owner_; }

private:
    friend class LifetimeToken;
    WeakRef(const std::shared_ptr<char>& alive, T* owner) : alive_(alive), owner_(owner) {}

    std::weak_ptr<char> alive_;
    T* owner_ = nullptr;
};

} // namespace parlune
