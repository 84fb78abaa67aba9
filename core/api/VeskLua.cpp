#include "core/api/VeskLua.h"

#include <wx/thread.h>

#include "core/api/AppLua.h"
#include "core/api/CredLua.h"
#include "core/api/FileLua.h"
#include "core/api/HmdLua.h"
#include "core/api/HttpLua.h"
#include "core/api/LuaStreamLua.h"
#include "core/api/NetLua.h"
#include "core/api/OpenSslLua.h"
#include "core/api/WxLua.h"
#include "slb/Manager.h"

bool VeskLua_Init() {
    static wxMutex s_cs;
    wxMutexLocker lock(s_cs);
    static bool b_InitDone = false;
    if (b_InitDone)
        return true;
    // Set first: a registration that fails half-way is never repeated.
    b_InitDone = true;
    SLB::Manager* const manager = SLB::Manager::defaultManager();
    // Own names first, then the modules in this order; HmdLua_Init takes its
    // place as it is built.
    VeskCore::AppLua_Init(manager);
    VeskCore::CredLua_Init(manager);
    VeskCore::FileLua_Init(manager);
    VeskCore::HmdLua_Init(manager);
    VeskCore::HttpLua_Init(manager);
    VeskCore::LuaStream_Init(manager);
    VeskCore::NetLua_Init(manager);
    VeskCore::OpenSslLua_Init(manager);
    VeskCore::WxLua_Init(manager);
    return true;
}

bool VeskLua_Term() {
    SLB::Manager::destroyDefaultManager();
    return true;
}
