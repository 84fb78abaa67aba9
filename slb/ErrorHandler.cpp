#include "slb/ErrorHandler.h"

#include <lua.hpp>

namespace SLB {

ErrorHandler::~ErrorHandler() = default;

int ErrorHandler::call(lua_State* L, int nargs, int nresults) {
    const int functionIndex = lua_gettop(L) - nargs;
    lua_pushlightuserdata(L, this);
    lua_pushcclosure(L, &ErrorHandler::messageHandler, 1);
    lua_insert(L, functionIndex);  // the handler sits below the function
    const int status = lua_pcall(L, nargs, nresults, functionIndex);
    lua_remove(L, functionIndex);
    if (status == LUA_ERRMEM || status == LUA_ERRERR)
        describeUnhandled(L);
    return status;
}

// Lua runs no message handler for these two statuses; without this, end()
// would give the text of an earlier failure.
void ErrorHandler::describeUnhandled(lua_State* L) {
    const char* message = lua_tostring(L, -1);
    try {
        begin(message != nullptr ? message : "(error object is not a string)");
    } catch (...) {
    }
}

// Runs inside Lua's error handling: no exception may leave it, and a failure
// here only costs the description, never the error value.
int ErrorHandler::messageHandler(lua_State* L) {
    auto* handler = static_cast<ErrorHandler*>(lua_touserdata(L, lua_upvalueindex(1)));
    const bool isText = lua_type(L, 1) == LUA_TSTRING || lua_type(L, 1) == LUA_TNUMBER;
    try {
        if (isText) {
            handler->begin(lua_tostring(L, 1));
        } else {
            lua_pushfstring(L, "(error object is a %s value)", luaL_typename(L, 1));  // +1
            handler->begin(lua_tostring(L, -1));
            lua_pop(L, 1);
        }
        lua_Debug info;
        for (int level = 1; lua_getstack(L, level, &info); ++level) {
            lua_getinfo(L, "nSl", &info);
            handler->stackElement(level, &info);
        }
        if (isText)
            lua_pushstring(L, handler->end());
        else
            lua_pushvalue(L, 1);
    } catch (...) {
        lua_pushvalue(L, 1);
    }
    return 1;
}

}  // namespace SLB
