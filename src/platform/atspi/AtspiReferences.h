#pragma once

#include <atspi/atspi.h>

#include <memory>

// Small helpers for libatspi calls, used only on the accessibility worker.
namespace parlune::atspi {

// Owns one GObject reference.
struct Unref {
    void operator()(void* object) const {
        if (object) {
            g_object_unref(object);
        }
    }
};
template <typename T> using Ref = std::unique_ptr<T, Unref>;

// Swallows an error: every failed query simply answers "absent".
inline bool failed(GError*& error) {
    if (!error) {
        return false;
    }
    g_error_free(error);
    error = nullptr;
    return true;
}

inline bool hasState(AtspiAccessible* accessible, AtspiStateType state) {
    Ref<AtspiStateSet> states(atspi_accessible_get_state_set(accessible));
    return states && atspi_state_set_contains(states.get(), state);
}

} // namespace parlune::atspi
