// A package searcher that finds Lua modules inside zip archives and loads them
// straight from the compressed stream, with nothing unpacked to disk.
//
// The archives are package.zippath at the time of registration, a ";"-list
// searched left to right; module a.b is the entry a/b.lua or a/b/init.lua,
// whichever comes first in the archive. No archive is cached: each search
// opens them anew. A module on package.path wins, the searcher being last.
#pragma once

#include "core/common/Export.h"

struct lua_State;

namespace VeskCore {

// Appends the searcher to package.searchers, with the current package.zippath;
// each call adds one more. Returns 0. Stack unchanged.
VESK_EXPORT int RegisterZipLoader(lua_State* L);

}  // namespace VeskCore
