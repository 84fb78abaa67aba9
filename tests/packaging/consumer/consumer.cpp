// Brings the installed library up and down around one use of its C++ API,
// which needs the installed headers, wx's and the exported settings.
#include <cstdio>

#include "core/runtime/App.h"
#include "core/runtime/Version.h"
#include "core/runtime/vesk_core.h"

int main() {
    if (VeskCore_Init() != 1)
        return 1;
    bool same = false;
    {
        VeskCore::CApp app;
        same = app.Set("consumer.greeting", "hello") && app.Get("consumer.greeting") == "hello";
    }
    VeskCore_Term();
    if (!same)
        return 1;
    printf("vesk_core %s\n", VESK_VERSION_STRING);
    return 0;
}
