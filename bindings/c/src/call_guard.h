#pragma once
// Every function of the C interface runs its body through guarded(): a C++ exception becomes a status
// and a message for tovrel_last_error(), never an unwind into a caller that cannot handle it.
#include <exception>
#include <new>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "tovrel/tovrel.h"

namespace tovrel::capi {

/// A failure the C interface reports with its own status.
class CallError : public std::runtime_error {
  public:
    CallError(tovrel_status status, const std::string& message)
        : std::runtime_error(message), status_(status) {}
    [[nodiscard]] tovrel_status status() const { return status_; }

  private:
    tovrel_status status_;
};

/// Records `message` as this thread's last error and returns `status`. Any thread.
tovrel_status fail(tovrel_status status, const std::string& message);

/// Clears this thread's last error. Any thread.
void clearLastError();

/// This thread's last error message. Any thread.
const char* lastError();

/// Runs `body` (returning void or tovrel_status) and turns whatever it throws into a status. Any thread.
template <typename Body>
tovrel_status guarded(Body&& body) noexcept {
    clearLastError();
    try {
        if constexpr (std::is_void_v<decltype(body())>) {
            body();
            return TOVREL_OK;
        } else {
            return body();
        }
    } catch (const CallError& error) {
        return fail(error.status(), error.what());
    } catch (const std::invalid_argument& error) {
        return fail(TOVREL_ERROR_INVALID_ARGUMENT, error.what());
    } catch (const std::bad_alloc&) {
        return fail(TOVREL_ERROR_SYSTEM, "out of memory");
    } catch (const std::exception& error) {
        return fail(TOVREL_ERROR_INTERNAL, error.what());
    } catch (...) {
        return fail(TOVREL_ERROR_INTERNAL, "an unknown exception");
    }
}

/// Throws CallError(TOVREL_ERROR_INVALID_ARGUMENT) naming `what` when `pointer` is null.
template <typename T>
T* required(T* pointer, const char* what) {
    if (pointer == nullptr) {
        throw CallError(TOVREL_ERROR_INVALID_ARGUMENT, std::string(what) + " is NULL");
    }
    return pointer;
}

}  // namespace tovrel::capi
