// The GUID value and its text form "xxxxxxxx-xxxx-xxxx-xxxx-xxxxxxxxxxxx", as
// uuidgen prints it.
//
// Thread safety: every function is safe to call from any thread.
#pragma once

#include <wx/string.h>

#include <cstdint>

#include "core/common/Export.h"

namespace VeskCore {

struct _GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
};

// Reads the 36-character text form, upper or lower case. False, with `guid`
// untouched, for any other length or a group that doesn't read. What sscanf
// takes in a group's place passes, such as a sign or "0x" within its width.
VESK_EXPORT bool Parse(const wxString& text, _GUID* guid);

// The 36-character text form, lower case. Declared with the other toString
// overloads too (StringUtil.h).
VESK_EXPORT wxString toString(const _GUID* guid);

// All 16 bytes compared, copied, or set to 0.
VESK_EXPORT bool Equals(const _GUID* a, const _GUID* b);
VESK_EXPORT void Copy(_GUID* to, const _GUID* from);
VESK_EXPORT void Clear(_GUID* guid);

}  // namespace VeskCore
