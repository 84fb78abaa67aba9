// SystemTickCount on Linux: CLOCK_MONOTONIC, which counts from boot, does not
// jump with the wall clock, and is a vDSO call rather than a system call.
#include <time.h>

#include "core/common/SystemUtil.h"

namespace VeskCore {

unsigned int SystemTickCount() {
    struct timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const long long millis =
        static_cast<long long>(now.tv_sec) * 1000 + static_cast<long long>(now.tv_nsec) / 1000000;
    return static_cast<unsigned int>(millis);
}

}  // namespace VeskCore
