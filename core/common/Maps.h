// The hash maps that hold objects by name or by number, and text by name,
// across the library. The pointer maps own nothing: the owner of each map
// says what its entries mean.
#pragma once

#include <wx/hashmap.h>
#include <wx/string.h>

namespace VeskCore {

WX_DECLARE_STRING_HASH_MAP(void*, MapStringToPointer);
WX_DECLARE_STRING_HASH_MAP(wxString, MapStringToString);
WX_DECLARE_HASH_MAP(wxUint32, void*, wxIntegerHash, wxIntegerEqual, MapUint32ToPointer);

}  // namespace VeskCore
