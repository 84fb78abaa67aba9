// The names a script uses to talk to the agent as a whole: the top-level
// functions (SLB.Init, SLB.ShouldExit, ...) and the classes App, Runnable and
// LuaThread.
#pragma once

struct lua_State;

namespace SLB {
class Manager;
}

namespace VeskCore {

// Registers the names into `manager`. Registration runs once, at start.
void AppLua_Init(SLB::Manager* manager);

// Lua: ShouldExit([msecToWait]) -> boolean. Asks the thread of this state (or
// the calling thread) whether it should stop, waiting up to msecToWait (0 by
// default); false where there is no such thread. The application's shutdown
// flag is not looked at: App:ShouldExit does that.
int ShouldExit(lua_State* L);

// Lua: SystemTickDiff(older) -> now - older, SystemTickDiff(newer, older) ->
// newer - older, both in the 32-bit tick clock, modulo 2^32.
int SystemTickDiff(lua_State* L);

}  // namespace VeskCore
