#include "core/api/TraceLua.h"

#include <wx/log.h>

#include <lua.hpp>
#include <string>

#include "core/runtime/LogTrace.h"

namespace VeskCore {

void LogTraceLua(const wxString& mask, const wxString& text) {
    const std::string maskBytes = mask.utf8_string();
    if (!LogTraceIsEnabled(maskBytes.c_str()))
        return;
    const std::string textBytes = text.utf8_string();
    LogTrace(maskBytes.c_str(), "%s", textBytes.c_str());
}

namespace {
void LogAtLevel(lua_Integer level, const char* text) {
    wxLogGeneric(static_cast<wxLogLevel>(level), wxS("%s"), wxString::FromUTF8(text));
}
}  // namespace

int wxLogLua(lua_State* L) {
    // Both checks may raise: they run before any C++ object exists here.
    const lua_Integer level = luaL_checkinteger(L, lua_upvalueindex(1));
    const char* text = luaL_checklstring(L, 1, nullptr);
    LogAtLevel(level, text);
    return 0;
}

}  // namespace VeskCore
