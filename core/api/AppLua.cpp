#include "core/api/AppLua.h"

#include <wx/thread.h>

#include <lua.hpp>

#include "core/api/TraceLua.h"
#include "core/common/Base64.h"
#include "core/common/FileUtil.h"
#include "core/common/StringUtil.h"
#include "core/common/SystemUtil.h"
#include "core/runtime/App.h"
#include "core/runtime/LogTrace.h"
#include "core/runtime/LuaThread.h"
#include "core/runtime/vesk_core.h"
#include "slb/Class.h"
#include "slb/FuncCall.h"
#include "slb/Manager.h"

namespace VeskCore {
namespace {

using SLB::FuncCall;

// A wait as the binder reads an unsigned int: a negative count or NaN waits
// not at all, and a count past the 32-bit range is the longest wait, which
// TestDestroy takes as "until awakened".
unsigned int WaitMilliseconds(lua_Number milliseconds) {
    if (!(milliseconds > 0))
        return 0;
    return milliseconds >= 4294967295.0 ? 0xFFFFFFFFu : static_cast<unsigned int>(milliseconds);
}

void RegisterFunctions(SLB::Manager* m) {
    m->set("ErrnoToString", FuncCall::create(&ErrnoToString));
    m->set("FromBase64", FuncCall::create(&FromBase64));
    m->set("Init", FuncCall::create(+[]() { return VeskCore_Init() == 1; }));
    m->set("InitCrashHandler", FuncCall::create(&InitCrashHandler));
    m->set("LogTrace", FuncCall::create(&LogTraceLua));
    m->set("LogTraceIsEnabled",
           FuncCall::create(static_cast<bool (*)(const wxString&)>(&LogTraceIsEnabled)));
    m->set("ReplaceFile", FuncCall::create(&ReplaceFile));
    m->set("ShouldExit", FuncCall::create(&ShouldExit));
    m->set("Sleep", FuncCall::create(&SleepMilliseconds));
    m->set("SystemTickCount", FuncCall::create(&SystemTickCount));
    m->set("SystemTickDiff", FuncCall::create(&SystemTickDiff));
    m->set("Term", FuncCall::create(+[]() { return VeskCore_Term() == 1; }));
    m->set("TimeNowMillis", FuncCall::create(&TimeNowMillis));
    m->set("ToBase64", FuncCall::create(&toBase64StringASCII));
}

void RegisterApp(SLB::Manager* m) {
    SLB::Class<CApp, SLB::Instance::Default>("App", m)
        .constructor<>()
        .set("ConfigGet", &CApp::ConfigGet)
        .set("ConfigGetXml", &CApp::ConfigGetXml)
        .set("ConfigSet", &CApp::ConfigSet)
        .set("Get", static_cast<int (*)(lua_State*)>(&CApp::Get))
        .set("GetSettings", &CApp::GetSettings)
        .set("InitiateShutdown", &CApp::InitiateShutdown)
        .comment("Sets a flag to signal the rest of the app to begin shutting down.")
        .set("Set", static_cast<int (*)(lua_State*)>(&CApp::Set))
        .set("ServiceIsRunning", &CApp::ServiceIsRunning)
        .param("serviceName")
        .set("ServiceStart", &CApp::ServiceStart)
        .param("serviceName")
        .set("ServiceStop", &CApp::ServiceStop)
        .param("serviceName")
        .set("ShouldExit", &CApp::ShouldExit)
        .comment(
            "Returns a boolean indicating if the current thread or the whole app should be shut "
            "down.")
        .param("msecToWait")
        .set("Shutdown", &CApp::Shutdown)
        .comment("Shuts down all subsystems.")
        .set("ThreadGet", &CApp::ThreadGet)
        .comment("Locates a thread based on its handle.")
        .param("hThread");
}

void RegisterRunnable(SLB::Manager* m) {
    SLB::Class<CRunnable, SLB::Instance::NoCopy>("Runnable", m)
        .comment("Runnable class wrapper for C++ VeskCore::CRunnable")
        .inherits<wxThread>()
        .set("GetThreadName", &CRunnable::GetThreadName)
        .set("Awaken", &CRunnable::Awaken)
        .set("GetHandle", &CRunnable::GetHandle)
        .comment(
            "Gets a handle for this thread that can safely be serialized. Use CApp::ThreadGet() "
            "to map the handle back to the thread.")
        .set("isRunning", &CRunnable::isRunning)
        .set("interrupt", &CRunnable::interrupt)
        .set("join", &CRunnable::join)
        .set("requestExit", &CRunnable::requestExit)
        .set("start", &CRunnable::start)
        .set("startWithDefaults", &CRunnable::startWithDefaults)
        .set("TestDestroy", static_cast<bool (CRunnable::*)(unsigned int)>(&CRunnable::TestDestroy))
        .param("milliseconds")
        .set("This", &CRunnable::This)
        .comment("Gets the Runnable instance for the currently executing code.");
}

void RegisterLuaThread(SLB::Manager* m) {
    SLB::Class<CLuaThread, SLB::Instance::NoCopy>("LuaThread", m)
        .comment("LuaThread class wrapper for C++ VeskCore::CLuaThread")
        .inherits<CRunnable>()
        .inherits<wxThread>()
        .constructor<const wxString&, const std::string&, CApp*>()
        .param(
            "Lua code to execute. Pass an empty string if you want to keep the thread alive, then "
            "use RunScript() to execute chunks of Lua code.")
        .param("Name of thread")
        .param("App object or nil")
        .set("IdleTime", &CLuaThread::IdleTime)
        .comment(
            "Returns a integer giving the number of msec the thread has been idle. A value of 0 "
            "means the thread is not idle.")
        .set("isIdle", &CLuaThread::isIdle)
        .comment(
            "Returns a boolean indicating if the thread is currently idle. RunScript() will only "
            "succeed if the thread is currently idle.")
        .set("RunScript", &CLuaThread::RunScript)
        .comment(
            "Passes a chunk of code to the thread and then awakens it. Returns false if the thread "
            "was not idle, true if it was.")
        .param("Lua code to execute.")
        .param("Runnable object (or nil) to awaken when the chunk finishes executing.")
        .set("SetAwakenEvents", &CLuaThread::SetAwakenEvents)
        .comment(
            "Gives the Awaken() method access to an event object(s) that can be used to wake the "
            "thread from a select() call")
        .set("This", &CLuaThread::This)
        .comment("Gets the LuaThread instance for the currently executing code.");
}

}  // namespace

void AppLua_Init(SLB::Manager* manager) {
    RegisterFunctions(manager);
    RegisterApp(manager);
    RegisterRunnable(manager);
    RegisterLuaThread(manager);
}

int ShouldExit(lua_State* L) {
    const lua_Number wait = lua_gettop(L) != 0 ? luaL_checknumber(L, 1) : 0;
    CRunnable* runnable = CRunnable::FromLua(L);
    if (runnable == nullptr)
        runnable = CRunnable::This();
    const bool stop = runnable != nullptr && runnable->TestDestroy(WaitMilliseconds(wait));
    lua_pushboolean(L, stop ? 1 : 0);
    return 1;
}

int SystemTickDiff(lua_State* L) {
    unsigned int newer;
    unsigned int older;
    if (lua_gettop(L) < 2) {
        older = static_cast<unsigned int>(luaL_checkinteger(L, 1));
        newer = SystemTickCount();
    } else {
        newer = static_cast<unsigned int>(luaL_checkinteger(L, 1));
        older = static_cast<unsigned int>(luaL_checkinteger(L, 2));
    }
    lua_pushinteger(L, static_cast<lua_Integer>(newer - older));
    return 1;
}

}  // namespace VeskCore
