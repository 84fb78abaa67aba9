#include "core/lua/LuaInterpreter.h"

#include <wx/dynlib.h>
#include <wx/log.h>
#include <wx/mstream.h>
#include <wx/sstream.h>
#include <wx/stream.h>
#include <wx/thread.h>

#include <cstdlib>
#include <lua.hpp>
#include <new>

#include "core/common/Utf8.h"
#include "core/lua/NativeError.h"
#include "core/lua/ZipLoader.h"
#include "core/runtime/LogTrace.h"
#include "slb/Manager.h"

namespace VeskCore {
namespace {

constexpr const char* kMaskRegistryKey = "VeskCore::CLuaInterpreter::TraceMask";

// True when `text` converts from UTF-8; print drops a piece that does not,
// as the conversion to the local encoding always has.
bool IsUtf8(const char* text, size_t length) {
    return length == 0 || !wxString::FromUTF8(text, length).empty();
}

void LogPrinted(const char* text, size_t length) {
    wxLogMessage(wxS("%08lu %s"), static_cast<unsigned long>(wxThread::GetCurrentId()),
                 wxString::FromUTF8(text, length));
}

}  // namespace

CLuaInterpreter::CLuaInterpreter(bool sandboxed, const char* traceMask, bool registerSLB)
    : sandboxed(sandboxed), traceMask(wxString::FromUTF8(traceMask ? traceMask : "")) {
    traceMaskUtf8 = this->traceMask.utf8_string();
    state.reset(luaL_newstate());
    if (!state)
        throw std::bad_alloc();
    lua_State* const L = this->L();

    // Set before the libraries open: package.path must not come from LUA_PATH.
    lua_pushboolean(L, 1);
    lua_setfield(L, LUA_REGISTRYINDEX, "LUA_NOENV");
    TraceMemory("Bare Lua is using %d Kb");

    lua_gc(L, LUA_GCSTOP, 0);
    luaL_openlibs(L);
    chunkEnd = std::make_unique<CLuaChunkEnd>(L);

    lua_pushcfunction(L, LuaTraceback);
    tracebackIndex = lua_gettop(L);
    if (sandboxed) {
        for (const char* name : {"debug", "io", "os"}) {
            lua_pushnil(L);
            lua_setglobal(L, name);
        }
    } else {
        lua_getglobal(L, "os");  // stays on the stack for the state's life
        lua_pushcfunction(L, OsExit);
        lua_setfield(L, -2, "exit");
    }
    lua_gc(L, LUA_GCRESTART, 0);
    CollectAndTrace("After initialization, Lua is using %d Kb");

    if (registerSLB) {
        InstallNativeErrorHandler();
        SLB::Manager::defaultManager()->registerSLB(L);
    }

    lua_pushlightuserdata(L, nullptr);
    lua_pushcclosure(L, LuaPrint, 1);
    printIndex = lua_gettop(L);
    lua_pushvalue(L, printIndex);
    lua_setglobal(L, "print");
    CollectAndTrace("After print redefinition, Lua is using %d Kb");

    InstallHookIfVerbose();
}

void CLuaInterpreter::Close::operator()(lua_State* L) const {
    lua_close(L);
}

CLuaInterpreter::~CLuaInterpreter() {
    if (!state)
        return;
    lua_settop(L(), 0);
    Collect();
    TraceMemory("Just before close, Lua is using %d Kb");
    state.reset();
}

void CLuaInterpreter::TraceMemory(const char* stage) {
    LogTrace(traceMaskUtf8.c_str(), stage, lua_gc(L(), LUA_GCCOUNT, 0));
}

namespace {
int FullCollection(lua_State* L) {
    lua_gc(L, LUA_GCCOLLECT, 0);
    return 0;
}
}  // namespace

// A script's __gc may raise, or call os.exit, during any collection; outside a
// protected call Lua would panic and end the process. Collections run only
// between chunks, so an end raised by a finalizer has no chunk to end: it is
// consumed here, and an os.exit is as silent as anywhere else.
void CLuaInterpreter::Collect() {
    lua_pushcfunction(L(), FullCollection);
    const int status = lua_pcall(L(), 0, 0, 0);
    const bool exited = chunkEnd->GetReason() == CLuaChunkEnd::Reason::Exit;
    if (status != LUA_OK) {
        size_t length = 0;
        const char* message = lua_tolstring(L(), -1, &length);
        if (message != nullptr && !exited)
            wxLogError(wxS("CLuaInterpreter: %s"), FromUTF8Lenient(message, length));
        lua_pop(L(), 1);
    }
    if (chunkEnd->GetReason() != CLuaChunkEnd::Reason::None)
        chunkEnd->Reset();
}

void CLuaInterpreter::CollectAndTrace(const char* stage) {
    Collect();
    TraceMemory(stage);
}

// The hook is decided once, by an exact entry: a wildcard that happens to
// match must not slow every line of every thread down.
void CLuaInterpreter::InstallHookIfVerbose() {
    if (!wxLog::IsAllowedTraceMask(traceMask))
        return;
    lua_pushlightuserdata(L(), &traceMask);
    lua_setfield(L(), LUA_REGISTRYINDEX, kMaskRegistryKey);
    lua_sethook(L(), LuaHook, LUA_MASKCALL | LUA_MASKRET | LUA_MASKLINE, 0);
    TraceMemory("After sethook, Lua is using %d Kb");
}

void CLuaInterpreter::SetPrint(wxOutputStream* output) {
    lua_pushlightuserdata(L(), output);
    lua_pushcclosure(L(), LuaPrint, 1);
    lua_setglobal(L(), "print");
}

int CLuaInterpreter::RunScript(const wxString& source, int nArgs, int nResults,
                               const wxString& chunkName, wxOutputStream* output) {
    wxStringInputStream stream(source);
    return RunScript(stream, nArgs, nResults, chunkName, output);
}

int CLuaInterpreter::RunScript(wxInputStream& source, int nArgs, int nResults,
                               const wxString& chunkName, wxOutputStream* output) {
    const int top = lua_gettop(L());
    LogTrace(traceMaskUtf8.c_str(), "RunScript()");
    errorInfo.clear();
    errorValueText.clear();
    exitStatus = 0;
    // An os.exit outside any chunk (a callback, a host's own pcall on L())
    // must not end this one.
    chunkEnd->Reset();

    int status;
    {
        wxMemoryOutputStream text;
        source.Read(text);
        const wxStreamBuffer* bytes = text.GetOutputStreamBuffer();
        const std::string name = chunkName.utf8_string();
        status = luaL_loadbufferx(L(), static_cast<const char*>(bytes->GetBufferStart()),
                                  bytes->GetIntPosition(), name.c_str(), nullptr);
    }
    CollectAndTrace("After loadbuffer, Lua is using %d Kb");
    if (status != LUA_OK) {
        const char* message = lua_tostring(L(), -1);
        if (message != nullptr) {
            wxLogError(wxS("CLuaInterpreter: luaL_loadbuffer() returned %d (%s)"), status,
                       FromUTF8Lenient(message, strlen(message)));
        } else {
            wxLogError(wxS("CLuaInterpreter: luaL_loadbuffer() returned %d"), status);
        }
        lua_settop(L(), top);
        return status;
    }
    return RunLoaded(top, nArgs, nResults, output);
}

int CLuaInterpreter::RunLoaded(int top, int nArgs, int nResults, wxOutputStream* output) {
    SetPrint(output);
    CollectAndTrace("After print redefinition, Lua is using %d Kb");

    int status = lua_pcallk(L(), nArgs, nResults, tracebackIndex, 0, nullptr);
    TraceMemory("After pcall, Lua is using %d Kb");

    // A script can catch the end and return normally from C code; the
    // recorded reason, not the status, says how the chunk ended.
    if (chunkEnd->GetReason() == CLuaChunkEnd::Reason::Exit) {
        status = -1;
        exitStatus = chunkEnd->GetExitStatus();
    }
    chunkEnd->Reset();

    if (status != LUA_OK) {
        if (status != -1)
            KeepError(status, output);
        lua_settop(L(), top);
    }
    lua_pushvalue(L(), printIndex);
    lua_setglobal(L(), "print");
    Collect();
    return status;
}

void CLuaInterpreter::KeepError(int status, wxOutputStream* output) {
    if (!lua_isstring(L(), -1)) {
        DescribeErrorValue();
        return;
    }
    size_t length = 0;
    const char* message = lua_tolstring(L(), -1, &length);
    errorInfo = FromUTF8Lenient(message, length);
    if (output == nullptr)
        wxLogError(wxS("%s"), errorInfo);
}

namespace {

// lua_CFunction: the text the stand-alone `lua` shows for the error value at
// index 1 that is no string. A failing __tostring raises its own error.
int ErrorValueText(lua_State* L) {
    if (!luaL_callmeta(L, 1, "__tostring"))
        lua_pushliteral(L, "(no error message)");
    return 1;
}

}  // namespace

// The value on top is left where it is. __tostring is the script's code, so
// it runs protected; an error it raises is shown in its place.
void CLuaInterpreter::DescribeErrorValue() {
    lua_pushcfunction(L(), ErrorValueText);
    lua_pushvalue(L(), -2);
    lua_pcall(L(), 1, 1, 0);
    size_t length = 0;
    const char* text = lua_tolstring(L(), -1, &length);
    errorValueText = text != nullptr ? FromUTF8Lenient(text, length)
                                     : wxString(wxS("(error object is not a string)"));
    lua_pop(L(), 1);
}

void CLuaInterpreter::SetPackagePaths(const std::string& binPath, const std::string& luaPath,
                                      const std::string& cPath, const std::string& zipPath) {
    const std::string module = "?" + wxDynamicLibrary::GetDllExt().utf8_string();
    lua_getglobal(L(), "package");  // +1
    if (!zipPath.empty()) {
        lua_pushlstring(L(), zipPath.data(), zipPath.size());
        lua_setfield(L(), -2, "zippath");
        // One more searcher at each call, on purpose: each keeps its own list.
        RegisterZipLoader(L());
    }
    std::string path = luaPath.empty() ? std::string() : luaPath + ";";
    path += binPath + "/lua/?.lua;" + binPath + "/lua/?/init.lua";
    lua_pushlstring(L(), path.data(), path.size());
    lua_setfield(L(), -2, "path");

    std::string cpath = cPath.empty() ? std::string() : cPath + ";";
    cpath += binPath + "/lib/" + module + ";" + binPath + "/../lib/" + module + ";" + binPath +
             "/" + module;
    lua_pushlstring(L(), cpath.data(), cpath.size());
    lua_setfield(L(), -2, "cpath");
    lua_pop(L(), 1);
}

// An error value that is no text (nil, a table, the end of a chunk) passes
// unchanged, so that RunScript reports no error text for it.
int CLuaInterpreter::LuaTraceback(lua_State* L) {
    const char* message = lua_tostring(L, 1);
    if (message == nullptr)
        return 1;
    luaL_traceback(L, L, message, 2);
    return 1;
}

int CLuaInterpreter::OsExit(lua_State* L) {
    const int status = lua_isboolean(L, 1) ? (lua_toboolean(L, 1) ? EXIT_SUCCESS : EXIT_FAILURE)
                                           : luaL_optint(L, 1, EXIT_SUCCESS);
    CLuaChunkEnd::RaiseExit(L, status);
}

// No C++ object may be alive at a point where Lua can raise: the pieces are
// gathered on the Lua side and handed to wx only once all have converted.
int CLuaInterpreter::LuaPrint(lua_State* L) {
    auto* output = static_cast<wxOutputStream*>(lua_touserdata(L, lua_upvalueindex(1)));
    const int count = lua_gettop(L);
    lua_getglobal(L, "tostring");
    if (!lua_isfunction(L, -1)) {
        lua_pop(L, 1);
        lua_pushstring(L,
                       "ERROR: Unable to print() without the tostring() function. Did you "
                       "remove it?");
        return lua_error(L);
    }
    luaL_Buffer line;
    if (output == nullptr)
        luaL_buffinit(L, &line);  // sits above tostring
    const int tostring = count + 1;
    for (int i = 1; i <= count; ++i) {
        // Into the buffer the separator goes before tostring runs: luaL_addvalue
        // must find the piece on top, not a buffer that growing pushed.
        if (i > 1 && output == nullptr)
            luaL_addchar(&line, '\t');
        lua_pushvalue(L, tostring);
        lua_pushvalue(L, i);
        lua_call(L, 1, 1);
        size_t length = 0;
        const char* text = lua_tolstring(L, -1, &length);
        if (text == nullptr)
            return luaL_error(L, "'tostring' must return a string to 'print'");
        if (output != nullptr) {
            if (i > 1)
                output->PutC('\t');
            output->Write(text, length);
            lua_pop(L, 1);
        } else if (IsUtf8(text, length)) {
            luaL_addvalue(&line);
        } else {
            lua_pop(L, 1);
        }
    }
    if (output != nullptr) {
        output->PutC('\n');
        return 0;
    }
    luaL_pushresult(&line);
    size_t length = 0;
    const char* text = lua_tolstring(L, -1, &length);
    LogPrinted(text, length);
    return 0;
}

void CLuaInterpreter::LuaHook(lua_State* L, lua_Debug* ar) {
    lua_getfield(L, LUA_REGISTRYINDEX, kMaskRegistryKey);
    auto* mask = static_cast<const wxString*>(lua_touserdata(L, -1));
    lua_pop(L, 1);
    if (mask == nullptr || lua_getinfo(L, "Sln", ar) == 0)
        return;
    const std::string maskText = mask->utf8_string();
    const char* name = ar->name != nullptr ? ar->name : "null";
    const int line = ar->currentline;
    switch (ar->event) {
        case LUA_HOOKCALL:
        case LUA_HOOKRET: {
            const char* tag = ar->event == LUA_HOOKCALL ? "Call" : "Rtrn";
            if (line > 0) {
                LogTrace(maskText.c_str(), "%s:%s:%d:%s", tag, ar->short_src, line, name);
            } else if (ar->name != nullptr) {
                LogTrace(maskText.c_str(), "%s:%s:%s", tag, ar->short_src, name);
            }
            break;
        }
        case LUA_HOOKLINE:
            if (line > 0)
                LogTrace(maskText.c_str(), "Line:%s:%d", ar->short_src, line);
            break;
        default:
            break;
    }
}

}  // namespace VeskCore
