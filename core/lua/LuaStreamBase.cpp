#include "core/lua/LuaStreamBase.h"

#include <lua.hpp>
#include <string>

#include "slb/ClassInfo.h"
#include "slb/Manager.h"

namespace VeskCore {

CLuaStreamBase::~CLuaStreamBase() {
    if (fnRef != 0 && fnState != nullptr) {
        luaL_unref(fnState, LUA_REGISTRYINDEX, fnRef);
        fnRef = LUA_NOREF;
        fnState = nullptr;
    }
}

bool CLuaStreamBase::InCallbackMode() const {
    return fnState != nullptr && fnRef != LUA_NOREF;
}

bool CLuaStreamBase::PushFn() const {
    if (!lua_checkstack(fnState, 3))
        return false;
    lua_rawgeti(fnState, LUA_REGISTRYINDEX, fnRef);
    return true;
}

void CLuaStreamBase::ThrowText(const char* text) {
    // The handler that made the text goes with the unwinding; whoever catches
    // the pointer (the binder's boundary, which makes it the failed call's
    // Lua error) copies it before this thread throws again.
    thread_local std::string kept;
    kept = text != nullptr ? text : "";
    throw kept.c_str();
}

int CLuaStreamBase::SetFn(lua_State* L) {
    const SLB::Manager* manager = SLB::Manager::getInstance(L);
    const SLB::ClassInfo* cls =
        manager != nullptr ? manager->getClass(SLB::TypeID<CLuaStreamBase>::get()) : nullptr;
    auto* stream = cls != nullptr ? static_cast<CLuaStreamBase*>(cls->get_ptr(L, 1)) : nullptr;
    if (stream == nullptr)
        return luaL_error(L, "Invalid object for this method");
    if (lua_gettop(L) < 2 || !lua_isfunction(L, 2))
        return luaL_argerror(L, 2, "Function expected");
    // luaL_ref takes the top: with more arguments, the last one, on purpose.
    stream->fnRef = luaL_ref(L, LUA_REGISTRYINDEX);
    // The main thread, not a coroutine that called SetFn: a coroutine may be
    // collected long before the stream, the state's main thread never is.
    lua_rawgeti(L, LUA_REGISTRYINDEX, LUA_RIDX_MAINTHREAD);  // +1
    stream->fnState = lua_tothread(L, -1);
    lua_pop(L, 1);
    return 0;
}

}  // namespace VeskCore
