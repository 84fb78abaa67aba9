// The file helpers as scripts see them: the table SLB.file.
#pragma once

struct lua_State;

namespace SLB {
class Manager;
}

namespace VeskCore {

void FileLua_Init(SLB::Manager* manager);

// Lua: file.SetInheritable(fd [, inherit]) -> boolean. With the descriptor
// alone, inherit is true; a second argument counts by Lua's truth.
int File_SetInheritable(lua_State* L);

}  // namespace VeskCore
