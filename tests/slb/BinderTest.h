// A Lua state bound to a manager, with a helper that runs a chunk and returns
// its error text; and the fixture: a fresh manager with the example
// registrations and a state bound to it. Chunks are named "test", so errors
// read "test:LINE: ...".
#pragma once

#include <gtest/gtest.h>

#include <lua.hpp>
#include <string>

#include "slb/Manager.h"
#include "tests/slb/Examples.h"

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

class BinderTest : public ::testing::Test {
  protected:
    BinderTest() {
        Lifetime::reset();
        registerExamples(manager);
    }

    std::string run(const std::string& chunk) { return lua.run(chunk); }

    SLB::Manager manager;
    LuaState lua{manager};
};

}  // namespace slbtest
