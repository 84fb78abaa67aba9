#include "hostseal/Trace.h"

#include <dlfcn.h>

#include <cstdarg>
#include <cstdio>

namespace hostseal {

namespace {

using DebugFunction = void (*)(const char* format, ...);

DebugFunction FindDebugFunction() {
    // Looked up, not linked: most hosts have no such function, and the
    // library must load without it.
    return reinterpret_cast<DebugFunction>(dlsym(RTLD_DEFAULT, "QX_Fingerprint_Debug"));
}

}  // namespace

void Trace(const char* format, ...) {
    static const DebugFunction debug = FindDebugFunction();
    if (debug == nullptr)
        return;
    char line[256];
    va_list args;
    va_start(args, format);
    vsnprintf(line, sizeof line, format, args);
    va_end(args);
    // The line is already formatted: the host must not read '%' in it again.
    debug("%s", line);
}

}  // namespace hostseal
