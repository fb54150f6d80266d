#pragma once
// Nothing may leave an exported function as a C++ exception: a C caller has
// no way to catch it. Each entry point runs its body through guarded(), which
// logs "<function>: REASON" ("Unknown exception received." when there is no
// reason to tell) and returns the failure value.

#include <exception>
#include <new>
#include <utility>

#include "api/ApiState.h"

namespace kivreg::api {

// What an unforeseen failure says about itself.
inline const char* reasonOf(const std::exception& e) {
    return dynamic_cast<const std::bad_alloc*>(&e) != nullptr ? "out of memory" : e.what();
}

template <typename Result, typename Body>
Result guarded(const char16_t* function, Result onFailure, Body&& body) noexcept {
    try {
        return std::forward<Body>(body)();
    } catch (const std::exception& e) {
        try {
            state().gLog << timestamp << function << u": " << reasonOf(e) << endlog;
        } catch (...) {
        }
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
