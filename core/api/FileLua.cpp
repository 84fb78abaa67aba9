#include "core/api/FileLua.h"

#include <lua.hpp>

#include "core/common/FileUtil.h"
#include "slb/FuncCall.h"
#include "slb/Manager.h"

namespace VeskCore {

void FileLua_Init(SLB::Manager* m) {
    using SLB::FuncCall;
    m->set("file::CopyDirectory", FuncCall::create(&CopyDirectory));
    m->set("file::RemoveDirectory", FuncCall::create(&RemoveDirectory));
    m->set("file::SecureFileOrDirectory", FuncCall::create(&SecureFileOrDirectory));
    m->set("file::SetInheritable", FuncCall::create(&File_SetInheritable));
}

int File_SetInheritable(lua_State* L) {
    const int count = lua_gettop(L);
    if (count == 0)
        return luaL_error(L, "a file descriptor plus optional boolean expected");
    const int fd = static_cast<int>(luaL_checkinteger(L, 1));
    const bool inherit = count == 1 || lua_toboolean(L, 2) != 0;
    lua_pushboolean(L, SetInheritable(fd, inherit) ? 1 : 0);
    return 1;
}

}  // namespace VeskCore
