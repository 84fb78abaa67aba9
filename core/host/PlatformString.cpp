#include "core/host/PlatformString.h"

#include <cstdio>
#include <sstream>

namespace VeskCore {
namespace {

// os-release values may be quoted and may escape quotes with a backslash.
std::string Unquote(const std::string& value) {
    if (value.size() < 2 || (value.front() != '"' && value.front() != '\'') ||
        value.back() != value.front())
        return value;
    std::string out;
    for (size_t i = 1; i + 1 < value.size(); ++i) {
        if (value[i] == '\\' && i + 2 < value.size())
            ++i;
        out += value[i];
    }
    return out;
}

std::string OsReleaseField(const std::string& text, const std::string& key) {
    std::istringstream lines(text);
    std::string line;
    std::string value;
    while (std::getline(lines, line)) {
        if (line.compare(0, key.size() + 1, key + "=") == 0)
            value = Unquote(line.substr(key.size() + 1));
    }
    return value;
}

}  // namespace

std::string PlatformTagFromOsRelease(const std::string& osRelease) {
    std::string id = OsReleaseField(osRelease, "ID");
    const std::string version = OsReleaseField(osRelease, "VERSION_ID");
    if (id.empty())
        id = "linux";
    return "Linux_" + id + (version.empty() ? "" : "_" + version);
}

std::string ComposePlatformString(const std::string& tag, const std::string& release,
                                  const std::string& machine) {
    int major = 0, minor = 0, patch = 0;
    char rest[129] = "";
    if (sscanf(release.c_str(), "%d.%d.%d-%128s", &major, &minor, &patch, rest) < 2)
        return tag;
    char text[512];
    snprintf(text, sizeof text, "%s;%d;%d;%d;%s;%.128s", tag.c_str(), major, minor, patch, rest,
             machine.c_str());
    return text;
}

}  // namespace VeskCore
