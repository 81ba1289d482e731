#pragma once

#include "core/platform/KeyboardEvents.h"

#include <functional>
#include <vector>

namespace parlune::test {

// Sends keys through the real port, records every chord, and lets a test act right after a given
// key went out.
class InterceptedKeyboard final : public KeyboardEvents {
public:
    explicit InterceptedKeyboard(KeyboardEvents& inner) : inner_(inner) {}
    std::function<void(std::uint16_t)> afterKey;
    std::vector<KeyChord> sent;

    QCoro::Task<bool> sendCommandKey(std::uint16_t keyCode, ProcessId target,
                                     std::stop_token token) override {
        co_return co_await sendChord(KeyChord{keyCode, KeyChord::command}, target, std::move(token));
    }
    QCoro::Task<bool> sendChord(KeyChord chord, ProcessId target, std::stop_token token) override {
        const bool delivered = co_await inner_.sendChord(chord, target, token);
        sent.push_back(chord);
        if (afterKey) {
            afterKey(chord.keyCode);
        }
        co_return delivered;
    }

private:
    KeyboardEvents& inner_;
};

} // namespace parlune::test
