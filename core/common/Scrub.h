// Wiping ordinary strings that have held a secret, before they are released
// or reused.
//
// Thread safety: a string must not be used by another thread meanwhile.
#pragma once

#include <wx/string.h>

#include <string>

#include "core/common/Export.h"

namespace VeskCore {

// Overwrites the whole buffer of `text` with blanks and empties it. The
// buffer is not freed, so the string may be reused.
VESK_EXPORT void Scrub(std::string& text);

// Wipes the whole buffer of `text` and leaves it empty, with its buffer
// released. Strings are never shared on this platform (each copy owns its
// buffer), so copies made earlier keep their text: scrub those as well.
VESK_EXPORT void Scrub(wxString& text);

}  // namespace VeskCore
