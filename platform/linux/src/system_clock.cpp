#include "tovrel/linux/system_clock.h"

#include <chrono>
#include <thread>

namespace tovrel::linuxbackend {

double SystemClock::now() const {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

void SystemClock::sleepFor(double seconds) {
    if (seconds > 0) {
        std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    }
}

}  // namespace tovrel::linuxbackend
