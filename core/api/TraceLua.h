// The Lua side of logging and tracing: what scripts call to write to the
// agent's log.
#pragma once

#include <wx/string.h>

#include "core/common/Export.h"

struct lua_State;

namespace VeskCore {

// The Lua function LogTrace: the text is logged as it is, so a '%' in script
// text is harmless.
VESK_EXPORT void LogTraceLua(const wxString& mask, const wxString& text);

// lua_CFunction behind the module's eight log functions: the wx log level is
// upvalue 1, the text argument 1.
int wxLogLua(lua_State* L);

}  // namespace VeskCore
