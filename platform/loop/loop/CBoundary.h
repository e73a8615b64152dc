#pragma once
// Every callback that C code (sd-event, sd-bus) calls goes through CBoundary::Call: an exception must
// never unwind through C frames. It is logged at LOG_ERR and turned into a negative errno, and the
// process stays up. RAII releases whatever locks the body held.

#include <cerrno>
#include <exception>
#include <new>
#include <stdexcept>
#include <system_error>
#include <type_traits>
#include <utility>

#include "logging/Log.h"

namespace CBoundary {

// Logging may itself fail (no memory left): that must not end the process from a noexcept frame.
inline void Report(const char* where, const char* what) noexcept {
    try {
        if (what != nullptr)
            Logging::Log(LOG_ERR, "%s: exception stopped at the C boundary: %s", where, what);
        else
            Logging::Log(LOG_ERR, "%s: unknown exception stopped at the C boundary", where);
    } catch (...) {
    }
}

// A line of its own for what a thread's catch-all stopped, "where: what"; never throws.
inline void Note(const char* where, const char* what) noexcept {
    try {
        Logging::Log(LOG_ERR, "%s: %s", where, what);
    } catch (...) {
    }
}

// The same barrier for a thread's own body (a worker), where there is no errno to give: what `body`
// throws is logged as "where: what" ("where: unknown exception") and stops here. True when the body
// finished.
template <typename Body>
bool Finished(const char* where, Body&& body) noexcept {
    try {
        std::forward<Body>(body)();
        return true;
    } catch (const std::exception& e) {
        Note(where, e.what());
    } catch (...) {
        Note(where, "unknown exception");
    }
    return false;
}

template <typename Body>
int Call(const char* where, Body&& body) noexcept {
    try {
        if constexpr (std::is_void_v<std::invoke_result_t<Body>>) {
            std::forward<Body>(body)();
            return 0;
        } else {
            return static_cast<int>(std::forward<Body>(body)());
        }
    } catch (const std::system_error& e) {
        Report(where, e.what());
        // only errno-valued categories carry an errno
        const std::error_category& category = e.code().category();
        const bool isErrno = category == std::generic_category() || category == std::system_category();
        const int code = e.code().value();
        return isErrno && code > 0 ? -code : -EIO;
    } catch (const std::bad_alloc& e) {
        Report(where, e.what());
        return -ENOMEM;
    } catch (const std::out_of_range& e) {
        Report(where, e.what());
        return -ERANGE;
    } catch (const std::invalid_argument& e) {
        Report(where, e.what());
        return -EINVAL;
    } catch (const std::exception& e) {
        Report(where, e.what());
        return -EIO;
    } catch (...) {
        Report(where, nullptr);
        return -EIO;
    }
}

}  // namespace CBoundary
