#include "core/lua/LuaChunkEnd.h"

#include <cstdlib>
#include <lua.hpp>

namespace VeskCore {
namespace {

// Addresses used as registry key and as error value: unique and private.
char s_RecordKey;
char s_Sentinel;

}  // namespace

CLuaChunkEnd::CLuaChunkEnd(lua_State* L) {
    lua_rawgeti(L, LUA_REGISTRYINDEX, LUA_RIDX_MAINTHREAD);  // +1
    mainThread = lua_tothread(L, -1);
    lua_pop(L, 1);
    lua_pushlightuserdata(L, this);
    lua_rawsetp(L, LUA_REGISTRYINDEX, &s_RecordKey);
    WrapCoroutineLibrary(L);
}

CLuaChunkEnd* CLuaChunkEnd::From(lua_State* L) {
    lua_rawgetp(L, LUA_REGISTRYINDEX, &s_RecordKey);  // +1
    auto* record = static_cast<CLuaChunkEnd*>(lua_touserdata(L, -1));
    lua_pop(L, 1);
    return record;
}

void CLuaChunkEnd::RaiseExit(lua_State* L, int status) {
    if (CLuaChunkEnd* record = From(L)) {
        if (record->reason == Reason::None)
            record->exitStatus = status;
        record->Arm(L, Reason::Exit);
    }
    RaiseSentinel(L);
}

void CLuaChunkEnd::Reset() {
    reason = Reason::None;
    exitStatus = 0;
    if (lua_gethook(mainThread) == ReRaiseHook) {
        lua_sethook(mainThread, savedHook, savedMask, savedCount);
    }
    savedHook = nullptr;
    savedMask = savedCount = 0;
}

void CLuaChunkEnd::Arm(lua_State* L, Reason why) {
    if (reason == Reason::None)
        reason = why;
    if (lua_gethook(mainThread) != ReRaiseHook) {
        savedHook = lua_gethook(mainThread);
        savedMask = lua_gethookmask(mainThread);
        savedCount = lua_gethookcount(mainThread);
    }
    HookThread(mainThread);
    HookThread(L);
}

// A count hook fires before every instruction of Lua code only, never inside
// a C function such as the traceback handler, so it re-raises exactly where a
// script could go on running.
void CLuaChunkEnd::HookThread(lua_State* L) {
    lua_sethook(L, ReRaiseHook, LUA_MASKCOUNT, 1);
}

void CLuaChunkEnd::ReRaiseHook(lua_State* L, lua_Debug*) {
    CLuaChunkEnd* record = From(L);
    if (record != nullptr && record->reason != Reason::None)
        RaiseSentinel(L);
    // A coroutine left hooked by an earlier end: it has nothing to do now.
    lua_sethook(L, nullptr, 0, 0);
}

void CLuaChunkEnd::RaiseSentinel(lua_State* L) {
    lua_pushlightuserdata(L, &s_Sentinel);
    lua_error(L);
    std::abort();  // lua_error does not return
}

// The end must pass from a coroutine to whichever thread resumed it, even when
// that thread is itself a coroutine with no hook of its own.
void CLuaChunkEnd::WrapCoroutineLibrary(lua_State* L) {
    lua_getglobal(L, "coroutine");  // +1
    if (lua_istable(L, -1)) {
        lua_getfield(L, -1, "resume");
        lua_pushcclosure(L, Resume, 1);
        lua_setfield(L, -2, "resume");
        lua_getfield(L, -1, "wrap");
        lua_pushcclosure(L, Wrap, 1);
        lua_setfield(L, -2, "wrap");
    }
    lua_pop(L, 1);
}

int CLuaChunkEnd::Resume(lua_State* L) {
    lua_pushvalue(L, lua_upvalueindex(1));
    lua_insert(L, 1);
    lua_call(L, lua_gettop(L) - 1,
             LUA_MULTRET);  // the original never raises for a failed coroutine
    CLuaChunkEnd* record = From(L);
    if (record != nullptr && record->reason != Reason::None) {
        HookThread(L);
        RaiseSentinel(L);
    }
    return lua_gettop(L);
}

int CLuaChunkEnd::Wrap(lua_State* L) {
    lua_pushvalue(L, lua_upvalueindex(1));
    lua_insert(L, 1);
    lua_call(L, lua_gettop(L) - 1, 1);  // the original's function over the new coroutine
    lua_pushcclosure(L, CallWrapped, 1);
    return 1;
}

int CLuaChunkEnd::CallWrapped(lua_State* L) {
    lua_pushvalue(L, lua_upvalueindex(1));
    lua_insert(L, 1);
    if (lua_pcall(L, lua_gettop(L) - 1, LUA_MULTRET, 0) == LUA_OK)
        return lua_gettop(L);
    CLuaChunkEnd* record = From(L);
    if (record != nullptr && record->reason != Reason::None) {
        HookThread(L);
        RaiseSentinel(L);
    }
    return lua_error(L);  // the coroutine's own error, passed on unchanged
}

}  // namespace VeskCore
