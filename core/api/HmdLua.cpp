#include "core/api/HmdLua.h"

#include <algorithm>
#include <lua.hpp>

#include "slb/CopyValue.h"
#include "slb/FuncCall.h"
#include "slb/Manager.h"

namespace VeskCore {

void HmdLua_Init(SLB::Manager* manager) {
    using SLB::FuncCall;
    manager->set("hmd::MAX_ARGS", new SLB::CopyValue<int>(CHostMetaDataQuery::kArgs));
    manager->set("hmd::GetDirectoryListing", FuncCall::create(&Hmd_GetDirectoryListing));
    manager->set("hmd::GetEnvironment", FuncCall::create(&Hmd_GetEnvironment));
    manager->set("hmd::GetFileContents", FuncCall::create(&Hmd_GetFileContents));
    manager->set("hmd::GetFileInfo", FuncCall::create(&Hmd_GetFileInfo));
    manager->set("hmd::GetListenPorts", FuncCall::create(&Hmd_GetListenPorts));
}

int getHostMetaData(lua_State* L, HmdQuery query) {
    const int count = std::min(lua_gettop(L), static_cast<int>(CHostMetaDataQuery::kArgs));
    // Every check that may raise runs before a native object exists: a raise
    // skips destructors.
    for (int i = 1; i <= count; ++i)
        luaL_checklstring(L, i, nullptr);
    bool ok;
    {
        CHostMetaDataQueryResult result;
        wxString args[CHostMetaDataQuery::kArgs];
        for (int i = 0; i < count; ++i)
            args[i] = wxString::FromUTF8(lua_tostring(L, i + 1));
        ok = query(result, count, args);
        if (ok) {
            result.ComputeHash();
            lua_pushboolean(L, 1);
            result.toLua(L);
        }
    }
    if (!ok)
        lua_pushboolean(L, 0);
    return ok ? 2 : 1;
}

int Hmd_GetDirectoryListing(lua_State* L) {
    return getHostMetaData(L, &GetHmdDirectoryListing);
}

int Hmd_GetEnvironment(lua_State* L) {
    return getHostMetaData(L, &GetHmdEnvironment);
}

int Hmd_GetFileContents(lua_State* L) {
    return getHostMetaData(L, &GetHmdFileContents);
}

int Hmd_GetFileInfo(lua_State* L) {
    return getHostMetaData(L, &GetHmdFileInfo);
}

int Hmd_GetListenPorts(lua_State* L) {
    return getHostMetaData(L, &GetHmdListenPorts);
}

}  // namespace VeskCore
