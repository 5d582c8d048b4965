#include "call_guard.h"

namespace tovrel::capi {

namespace {
thread_local std::string tLastError;
}

tovrel_status fail(tovrel_status status, const std::string& message) {
    try {
        tLastError = message;
    } catch (...) {
        tLastError.clear();
    }
    return status;
}

void clearLastError() {
    tLastError.clear();
}

const char* lastError() {
    return tLastError.c_str();
}

}  // namespace tovrel::capi
