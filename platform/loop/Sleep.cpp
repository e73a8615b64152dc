#include "loop/Sleep.h"

#include <cerrno>
#include <ctime>

namespace Loop {

void SleepFor(std::chrono::milliseconds duration) {
    if (duration.count() <= 0)
        return;
    const auto ms = duration.count();
    timespec left{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&left, &left) < 0 && errno == EINTR) {
    }
}

}  // namespace Loop
