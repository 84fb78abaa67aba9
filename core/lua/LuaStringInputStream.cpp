#include "core/lua/LuaStringInputStream.h"

#include <algorithm>
#include <lua.hpp>

#include "slb/DefaultErrorHandler.h"

namespace VeskCore {

wxFileOffset CLuaStringInputStream::GetLength() const {
    return InCallbackMode() ? wxInvalidOffset : wxStringInputStream::GetLength();
}

size_t CLuaStringInputStream::OnSysRead(void* buffer, size_t size) {
    if (!InCallbackMode())
        return wxStringInputStream::OnSysRead(buffer, size);
    lua_State* const L = FnState();
    // Nothing here has a destructor before the last push that could raise.
    if (!PushFn())
        ThrowText("CLuaStringInputStream: no room on the Lua stack");
    lua_pushinteger(L, static_cast<lua_Integer>(size));
    SLB::DefaultErrorHandler handler;
    if (handler.call(L, 1, 1) != 0)
        ThrowText(handler.end());
    // Slot 1 of the frame the read came from, as it always was; never more
    // than the buffer, which wx would otherwise read past.
    const lua_Integer count = lua_tointegerx(L, 1, nullptr);
    lua_pop(L, 1);
    if (count <= 0) {
        // wx's readers loop while a stream is ok: nothing read is its end.
        m_lasterror = wxSTREAM_EOF;
        return 0;
    }
    return std::min(static_cast<size_t>(count), size);
}

wxFileOffset CLuaStringInputStream::OnSysTell() const {
    return InCallbackMode() ? wxStreamBase::OnSysTell() : wxStringInputStream::OnSysTell();
}

wxFileOffset CLuaStringInputStream::OnSysSeek(wxFileOffset offset, wxSeekMode mode) {
    return InCallbackMode() ? wxStreamBase::OnSysSeek(offset, mode)
                            : wxStringInputStream::OnSysSeek(offset, mode);
}

}  // namespace VeskCore
