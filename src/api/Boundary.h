#pragma once
// Nothing may leave an exported function as a C++ exception: a C caller has
// no way to catch it. Each entry point runs its body through guarded(), which
// logs "<function>: Unknown exception received." and returns the failure value.

#include <utility>

#include "api/ApiState.h"

namespace kivreg::api {

template <typename Result, typename Body>
Result guarded(const char16_t* function, Result onFailure, Body&& body) noexcept {
    try {
        return std::forward<Body>(body)();
    } catch (...) {
        try {
            state().gLog << timestamp << function << u": Unknown exception received." << endlog;
        } catch (...) {
            // Out of memory even for the message: the result still says it.
        }
    }
    return onFailure;
}

template <typename Body>
void guarded(const char16_t* function, Body&& body) noexcept {
    guarded(function, 0, [&] {
        std::forward<Body>(body)();
        return 0;
    });
}

}  // namespace kivreg::api
