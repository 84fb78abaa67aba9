// A Lua state bound to a manager, with a helper that runs a chunk and returns
// its error text. Chunks are named "test", so errors read "test:LINE: ...".
#pragma once

#include <lua.hpp>
#include <string>

#include "slb/Manager.h"

namespace slbtest {

class LuaState {
  public:
    explicit LuaState(SLB::Manager& manager) : L(luaL_newstate()) {
        luaL_openlibs(L);
        manager.registerSLB(L);
    }
    ~LuaState() { lua_close(L); }
    LuaState(const LuaState&) = delete;
    LuaState& operator=(const LuaState&) = delete;

    // "" when the chunk ran; otherwise its error message (or the type of a
    // non-string error value in angle brackets).
    std::string run(const std::string& chunk) {
        const int top = lua_gettop(L);
        int status = luaL_loadbuffer(L, chunk.data(), chunk.size(), "=test");
        if (status == LUA_OK)
            status = lua_pcall(L, 0, 0, 0);
        std::string error;
        if (status != LUA_OK)
            error = lua_type(L, -1) == LUA_TSTRING ? lua_tostring(L, -1)
                                                   : "<" + std::string(luaL_typename(L, -1)) + ">";
        lua_settop(L, top);
        return error;
    }

    void collect() { lua_gc(L, LUA_GCCOLLECT, 0); }

    lua_State* const L;
};

}  // namespace slbtest
