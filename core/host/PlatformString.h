// The text that identifies this host's platform to the manager:
// "<tag>;<major>;<minor>;<patch>;<release rest>;<architecture>".
#pragma once

#include <wx/string.h>

#include <string>

#include "core/common/Export.h"

namespace VeskCore {

// Reads the running system. The tag names the distribution, for example
// "Linux_debian_12"; when the kernel release can't be read, the tag alone.
VESK_EXPORT wxString GetPlatformString();

// The platform tag from the text of an os-release file: "Linux_" ID "_"
// VERSION_ID, with ID "linux" when absent and no version part when absent.
std::string PlatformTagFromOsRelease(const std::string& osRelease);

// Composes the platform string from the tag and the kernel's release and
// machine fields, as uname reports them.
std::string ComposePlatformString(const std::string& tag, const std::string& release,
                                  const std::string& machine);

}  // namespace VeskCore
