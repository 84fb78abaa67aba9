// The hash maps that hold objects by name or by number across the library.
// They own nothing: the owner of each map says what its entries mean.
#pragma once

#include <wx/hashmap.h>

namespace VeskCore {

WX_DECLARE_STRING_HASH_MAP(void*, MapStringToPointer);
WX_DECLARE_HASH_MAP(wxUint32, void*, wxIntegerHash, wxIntegerEqual, MapUint32ToPointer);

}  // namespace VeskCore
