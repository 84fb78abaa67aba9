// CRunnable's hooks into Linux: per-thread CPU time and thread names.
#include <pthread.h>
#include <sys/resource.h>
#include <wx/log.h>

#include <cstring>

#include "core/runtime/Runnable.h"

namespace VeskCore {

long long get_cpu_time() {
    struct rusage usage {};
    const int result = getrusage(RUSAGE_THREAD, &usage);
    if (result != 0) {
        wxLogError(wxS("getrusage() error %d."), result);
        return 0;
    }
    const long long seconds = static_cast<long long>(usage.ru_utime.tv_sec) + usage.ru_stime.tv_sec;
    const long long micros =
        static_cast<long long>(usage.ru_utime.tv_usec) + usage.ru_stime.tv_usec;
    return seconds * 1000 + micros / 1000;
}

// Threads are not pinned: the scheduler places them better than a fixed choice.
void CRunnable::SetIdealProcessor(int) {}

// Operators see the name in top -H and ps -L. The kernel keeps 15 bytes; the
// tail of a long name (".verbose", a service's last part) tells more than the
// head, so the last 15 are kept.
void CRunnable::SetThreadName(const char* name) {
    if (name == nullptr)
        return;
    const size_t length = strlen(name);
    pthread_setname_np(pthread_self(), name + (length > 15 ? length - 15 : 0));
}

}  // namespace VeskCore
