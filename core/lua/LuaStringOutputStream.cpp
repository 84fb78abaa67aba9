#include "core/lua/LuaStringOutputStream.h"

#include <algorithm>
#include <lua.hpp>

#include "slb/DefaultErrorHandler.h"

namespace VeskCore {

size_t CLuaStringOutputStream::OnSysWrite(const void* buffer, size_t size) {
    if (!InCallbackMode())
        return wxStringOutputStream::OnSysWrite(buffer, size);
    lua_State* const L = FnState();
    // Nothing here has a destructor before the last push that could raise.
    if (!PushFn())
        return 0;
    lua_pushlstring(L, static_cast<const char*>(buffer), size);
    SLB::DefaultErrorHandler handler;
    handler.call(L, 1, 1);  // a failed write is told by its count alone
    const lua_Integer count = lua_type(L, 1) == LUA_TNUMBER ? lua_tointegerx(L, 1, nullptr) : 0;
    lua_pop(L, 1);
    return count <= 0 ? 0 : std::min(static_cast<size_t>(count), size);
}

wxFileOffset CLuaStringOutputStream::OnSysTell() const {
    return InCallbackMode() ? wxStreamBase::OnSysTell() : wxStringOutputStream::OnSysTell();
}

}  // namespace VeskCore
