// The host metadata queries as scripts see them: the table SLB.hmd.
//
// Each function takes up to hmd.MAX_ARGS (16) strings or numbers, as the
// query of the same name in HmdQueries.h reads them (more are dropped), and
// returns true and the result record as a table, or a lone false. An
// argument that is neither a string nor a number raises the Lua error of
// luaL_checklstring; text that is not UTF-8 arrives as "".
//
// Thread safety: each call works on the calling state and its own objects.
#pragma once

#include "core/host/HmdQueries.h"

struct lua_State;

namespace SLB {
class Manager;
}

namespace VeskCore {

void HmdLua_Init(SLB::Manager* manager);

// Runs `query` with the arguments on L's stack and pushes its answer.
int getHostMetaData(lua_State* L, HmdQuery query);

int Hmd_GetDirectoryListing(lua_State* L);
int Hmd_GetEnvironment(lua_State* L);
int Hmd_GetFileContents(lua_State* L);
int Hmd_GetFileInfo(lua_State* L);
int Hmd_GetListenPorts(lua_State* L);

}  // namespace VeskCore
