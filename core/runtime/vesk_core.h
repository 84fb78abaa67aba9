// The library's two doors: a host calls VeskCore_Init and VeskCore_Term
// around its life; Lua's require calls luaopen_vesk_core.
//
// Both doors are independent: luaopen_vesk_core registers the Lua API but
// brings up neither OpenSSL nor wx; a script that came in by require calls
// the Lua functions Init and Term, which are the two C functions below.
#pragma once

#include "core/common/Export.h"

class wxAppConsole;
struct lua_State;

// Brings up OpenSSL and wx (unless the host has a wx application already) and
// registers the Lua API, once per process; later calls return 1 and do
// nothing. Returns 0 only when the Lua registration failed. Any thread.
VESK_C_EXPORT int VeskCore_Init();

// Tears down the Lua registry and OpenSSL's global state, once per process;
// always returns 1. wx is left to the host. Any thread.
VESK_C_EXPORT int VeskCore_Term();

// Lua module entry: binds the state to the Lua API if needed and returns the
// module table, whose missing names resolve in the global SLB table.
VESK_C_EXPORT int luaopen_vesk_core(lua_State* L);

namespace VeskCore {

// The wx application factory installed by VeskCore_Init. The library runs
// inside a host and owns no application, so it makes none.
wxAppConsole* CreateDllApp();

}  // namespace VeskCore
