#include <sys/utsname.h>

#include <fstream>
#include <sstream>

#include "core/host/PlatformString.h"

namespace VeskCore {
namespace {

std::string ReadOsRelease() {
    for (const char* path : {"/etc/os-release", "/usr/lib/os-release"}) {
        std::ifstream file(path);
        if (!file)
            continue;
        std::ostringstream text;
        text << file.rdbuf();
        return text.str();
    }
    return std::string();
}

}  // namespace

wxString GetPlatformString() {
    const std::string tag = PlatformTagFromOsRelease(ReadOsRelease());
    struct utsname name;
    if (uname(&name) != 0)
        return wxString::FromUTF8(tag);
    return wxString::FromUTF8(ComposePlatformString(tag, name.release, name.machine));
}

}  // namespace VeskCore
