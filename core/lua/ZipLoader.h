// A package searcher that finds Lua modules inside zip archives and loads them
// straight from the compressed stream, with nothing unpacked to disk.
//
// The archives are package.zippath at the time of registration, a ";"-list
// searched left to right; module a.b is the entry a/b.lua or a/b/init.lua,
// whichever comes first in the archive. A module on package.path wins, the
// searcher being last.
//
// Each search opens the archives anew. What their entries are is remembered
// per path (the first entry of each name, in archive order) for as long as
// the file keeps its device, inode, size and modification time, so a module
// late in a large archive costs no walk over the others; a changed archive is
// read again. Entries whose names start with "/" or have an empty, "." or
// ".." part are no modules.
//
// An entry is checked as it loads: its local header against the central
// directory's record, its length and CRC-32 against the values there. An
// entry that is damaged, encrypted, over 16 MiB inflated, or neither stored
// nor deflated raises "<archive>:<entry>: <fault>" and counts as a module that
// does not compile: a later archive in the list that has the module still
// wins, and no code of the damaged entry ever reaches require.
//
// Thread safety: states on many threads may search at once.
#pragma once

#include "core/common/Export.h"

struct lua_State;

namespace VeskCore {

// Appends the searcher to package.searchers, with the current package.zippath;
// each call adds one more. Returns 0. Stack unchanged.
VESK_EXPORT int RegisterZipLoader(lua_State* L);

}  // namespace VeskCore
