#include "core/runtime/LuaThread.h"

#include <wx/log.h>

#include <cstring>
#include <lua.hpp>
#include <stdexcept>
#include <vector>

#include "core/common/SystemUtil.h"
#include "core/lua/LuaInterpreter.h"
#include "core/runtime/App.h"
#include "slb/ClassInfo.h"
#include "slb/Manager.h"
#include "slb/TypeInfoWrapper.h"

namespace VeskCore {
namespace {

constexpr unsigned int kWaitForever = 0xFFFFFFFFu;

const SLB::ClassInfo* BoundClassOf(lua_State* L, const SLB::TypeInfoWrapper& type) {
    const SLB::Manager* manager = SLB::Manager::getInstance(L);
    return manager != nullptr ? manager->getClass(type) : nullptr;
}

// lua_CFunction: sets the global `app` to a copy of the handle in upvalue 1.
// Run protected: a memory error must not escape the thread's set-up.
int PublishApp(lua_State* L) {
    const auto* app = static_cast<const CApp*>(lua_touserdata(L, 1));
    const SLB::ClassInfo* cls = BoundClassOf(L, SLB::TypeID<CApp>::get());
    if (cls == nullptr)
        return luaL_error(L, "the class App is not registered");
    cls->push_copy(L, app);
    lua_setglobal(L, "app");
    return 0;
}

}  // namespace

CLuaThread::CLuaThread(const wxString& chunk, const std::string& threadName, CApp* app)
    : CRunnable(false, -1, false),
      chunk(chunk),
      app(app != nullptr ? std::make_unique<CApp>(*app) : nullptr) {
    if (threadName.empty())
        throw std::invalid_argument("CLuaThread: a thread needs a name");
    const size_t length = std::min(threadName.size(), sizeof this->threadName - 1);
    memcpy(this->threadName, threadName.data(), length);
    this->threadName[length] = '\0';
    Register(this->app.get());
}

// A worker idles until asked to exit, so it is asked before it is waited for.
CLuaThread::~CLuaThread() {
    if (isRunning())
        requestExit();
    join();
    if (app != nullptr)
        UnRegister(app.get());
    threadName[0] = '\0';
    app.reset();
}

bool CLuaThread::RunScript(const wxString& chunk, CRunnable* awakenTarget) {
    wxMutexLocker lock(chunkMutex);
    if (!idle || !this->chunk.empty())
        return false;
    this->chunk = chunk;
    this->awakenTarget = awakenTarget;
    Awaken();
    return true;
}

unsigned int CLuaThread::IdleTime() {
    wxMutexLocker lock(chunkMutex);
    return idleSince == 0 ? 0 : SystemTickCount() - idleSince;
}

CLuaThread* CLuaThread::This() {
    return dynamic_cast<CLuaThread*>(CRunnable::This());
}

void CLuaThread::OnRun() {
    InitLua((std::string(threadName) + ".verbose").c_str());
    if (app != nullptr)
        PrepareState();
    bool oneShot;
    {
        wxMutexLocker lock(chunkMutex);
        oneShot = !chunk.empty();
    }
    for (;;) {
        wxString code;
        {
            wxMutexLocker lock(chunkMutex);
            idle = false;
            idleSince = 0;
            code = chunk;
        }
        // A failing chunk is logged by the interpreter; only an exception
        // ends the thread.
        Lua()->RunScript(code, 0, 0, wxS("vesk"), nullptr);
        if (oneShot)
            break;
        if (CRunnable* target = BecomeIdle())
            target->Awaken();
        if (TestDestroy(kWaitForever))
            break;
    }
}

void CLuaThread::PrepareState() {
    Lua()->SetPackagePaths(app->Get("app.path.bin"), app->Get("app.lua.path"),
                           app->Get("app.lua.cpath"), app->Get("app.lua.zippath"));
    lua_State* const state = L();
    lua_pushcfunction(state, PublishApp);
    lua_pushlightuserdata(state, app.get());
    if (lua_pcall(state, 1, 0, 0) != LUA_OK) {
        wxLogError(wxS("CLuaThread: no global 'app' in thread '%s': %s"),
                   wxString::FromUTF8(threadName), wxString::FromUTF8(lua_tostring(state, -1)));
        lua_pop(state, 1);
    }
}

// Returns whom to tell that the chunk is done.
CRunnable* CLuaThread::BecomeIdle() {
    wxMutexLocker lock(chunkMutex);
    chunk.clear();
    idle = true;
    idleSince = SystemTickCount();
    CRunnable* target = awakenTarget;
    awakenTarget = nullptr;
    return target;
}

int CLuaThread::SetAwakenEvents(lua_State* L) {
    const SLB::ClassInfo* cls = BoundClassOf(L, SLB::TypeID<CRunnable>::get());
    auto* runnable = cls != nullptr ? static_cast<CRunnable*>(cls->get_ptr(L, 1)) : nullptr;
    if (runnable == nullptr)
        return luaL_error(L, "Invalid object for this method - CRunnable expected");
    if (lua_isnoneornil(L, 2))
        return 0;
    if (!lua_istable(L, 2))
        return luaL_argerror(L, 2, "table of event descriptors expected");
    const size_t count = lua_rawlen(L, 2);
    if (count == 0)
        return 0;
    // Read in full before anything that a raise could leak exists.
    std::vector<int> events;
    events.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        lua_rawgeti(L, 2, static_cast<int>(i + 1));  // +1
        events.push_back(static_cast<int>(lua_tointegerx(L, -1, nullptr)));
        lua_pop(L, 1);
    }
    runnable->SetAwakenEvents(std::move(events));
    return 0;
}

}  // namespace VeskCore
