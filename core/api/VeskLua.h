// Registration of the Lua API into the binder's default manager.
//
// Two doors reach VeskLua_Init: VeskCore_Init, and luaopen_vesk_core for a
// state that has no binder yet. Each module registers its names from its own
// *Lua_Init function, called from here in a fixed order; a class one module
// names may be filled by a later one, since the binder makes empty class
// records on demand.
#pragma once

#include "core/common/Export.h"

// Registers every native name into the default manager, once per process:
// later calls return true at once, also after VeskLua_Term. Safe from any
// thread; must not be reached from inside a registration.
VESK_EXPORT bool VeskLua_Init();

// Destroys the default manager with all registrations. Lua states bound to it
// must be closed first. Returns true.
VESK_EXPORT bool VeskLua_Term();
