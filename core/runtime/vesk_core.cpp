#include "core/runtime/vesk_core.h"

#include <openssl/conf.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <wx/app.h>
#include <wx/init.h>
#include <wx/log.h>
#include <wx/thread.h>

#include <lua.hpp>

#include "core/api/BoundClass.h"
#include "core/api/TraceLua.h"
#include "core/api/VeskLua.h"
#include "core/host/PlatformString.h"
#include "core/http/OpenSslUtil.h"
#include "core/lua/CmdGetHostInfo.h"
#include "core/lua/NativeError.h"
#include "core/runtime/LogTrace.h"
#include "core/runtime/Version.h"
#include "slb/ClassInfo.h"
#include "slb/Manager.h"

namespace VeskCore {

// Serialises the two C doors. Built by static initialisation, so it exists
// before any exported function can run.
wxMutex s_DataGuard;

wxAppConsole* CreateDllApp() {
    return nullptr;
}

namespace {

constexpr int kMaxSeedPolls = 100;

// Index = wx log level.
const char* const logMethodName[] = {"wxLogFatalError", "wxLogError",  "wxLogWarning",
                                     "wxLogMessage",    "wxLogStatus", "wxLogInfo",
                                     "wxLogDebug",      "wxLogTrace"};

// The native commands in the module table: function, Lua name.
struct Command {
    NativeCommand function;
    const char* name;
};
const Command commands[] = {{&GetHostInfo, "GetHostInfo"}};

template <class T>
T* StreamArgument(lua_State* L, int index, const char* expected) {
    auto* stream = static_cast<T*>(ClassOrRaise<T>(L)->get_ptr(L, index));
    if (stream == nullptr)
        luaL_argerror(L, index, expected);
    return stream;
}

struct CommandResult {
    bool handled = false;
    int status = 200;
    std::string statusText;
    wxInputStream* replacement = nullptr;
};

// Runs a command; a C++ exception comes back as an exception_ptr, so that it
// is raised in Lua only after every C++ object here has gone.
std::exception_ptr RunCommand(NativeCommand command, const char* request, size_t length,
                              wxInputStream& in, wxOutputStream& out, CommandResult& result) {
    try {
        wxString statusText(wxS("OK"));
        result.handled = command(wxString::FromUTF8(request, length), in, result.status, statusText,
                                 out, result.replacement);
        result.statusText = statusText.utf8_string();
        return nullptr;
    } catch (...) {
        return std::current_exception();
    }
}

// Runs the command and pushes its four results, or the error value of its
// exception (then true: the caller raises it, with nothing of this frame left).
bool CallCommand(lua_State* L, NativeCommand command, const char* request, size_t length,
                 wxInputStream& in, wxOutputStream& out, const SLB::ClassInfo& inputClass) {
    CommandResult result;
    if (std::exception_ptr failure = RunCommand(command, request, length, in, out, result)) {
        PushNativeError(L, std::move(failure));
        return true;
    }
    lua_pushboolean(L, result.handled ? 1 : 0);
    lua_pushinteger(L, result.status);
    lua_pushlstring(L, result.statusText.data(), result.statusText.size());
    if (result.replacement != nullptr)
        inputClass.push_ptr(L, result.replacement);
    else
        lua_pushnil(L);
    return false;
}

// lua_CFunction: command(request, inputStream, outputStream) -> handled,
// status, status text, replacement stream or nil. Upvalue 1: the command.
int CommandBinding(lua_State* L) {
    if (!lua_islightuserdata(L, lua_upvalueindex(1)))
        return luaL_error(L, "upvalue 1 is not lightuserdata");
    const auto command = reinterpret_cast<NativeCommand>(lua_touserdata(L, lua_upvalueindex(1)));
    size_t length = 0;
    const char* request = luaL_checklstring(L, 1, &length);
    const SLB::ClassInfo* inputClass = ClassOrRaise<wxInputStream>(L);
    auto* in = StreamArgument<wxInputStream>(L, 2, "wxInputStream expected");
    auto* out = StreamArgument<wxOutputStream>(L, 3, "wxOutputStream expected");
    if (CallCommand(L, command, request, length, *in, *out, *inputClass))
        return lua_error(L);
    return 4;
}

void InitOpenSSL() {
    // OpenSSL 3 starts itself on first use and needs no lock callbacks; one
    // explicit start here makes a failure show at the library's start.
    OPENSSL_init_ssl(OPENSSL_INIT_LOAD_SSL_STRINGS | OPENSSL_INIT_LOAD_CRYPTO_STRINGS, nullptr);
    OpenSSLThreadSetup();
    if (!SecureAllocatorInForce())
        wxLogWarning(
            wxS("VeskCore_Init() - OpenSSL allocated memory before this library was "
                "loaded: memory it frees is not wiped"));
}

// An unseeded pool is not fatal here: whatever needs random bytes later
// finds out for itself.
void SeedRandom() {
    for (int polls = 0; polls < kMaxSeedPolls;) {
        RAND_poll();
        ++polls;
        if (RAND_status() != 0)
            break;
    }
}

void StartWx() {
    if (wxAppConsole::GetInstance() != nullptr)
        return;
    wxAppConsole::SetInitializerFunction(CreateDllApp);
    wxAppConsole::CheckBuildOptions(WX_BUILD_OPTIONS_SIGNATURE, "VeskCore");
    static char name[] = "VeskCore";
    static char* argv[] = {name, nullptr};
    int argc = 1;
    // wx deletes any log target that predates its start; the host's target
    // (often on the host's stack) is held aside so that it survives.
    wxLog* const hostTarget = wxLog::SetActiveTarget(nullptr);
    wxEntryStart(argc, argv);
    wxLog* const startTarget = wxLog::SetActiveTarget(hostTarget);
    if (startTarget != hostTarget)
        delete startTarget;
}

// Entries are popped one by one: the stack itself stays OpenSSL's, which
// frees it at exit.
void FreeCompressionMethods() {
    STACK_OF(SSL_COMP)* methods = SSL_COMP_get_compression_methods();
    if (methods == nullptr)
        return;
    while (sk_SSL_COMP_num(methods) > 0)
        OPENSSL_free(sk_SSL_COMP_pop(methods));
}

void TermOpenSSL() {
    // What OpenSSL 3 still keeps until exit; its per-thread error state and
    // tables it frees by itself.
    OpenSSLThreadShutdown();
    CONF_modules_unload(1);
    FreeCompressionMethods();
}

void PushVersionFields(lua_State* L) {
    lua_pushstring(L, GetPlatformString().utf8_string().c_str());
    lua_setfield(L, -2, "platform");
    lua_pushboolean(L, 1);
    lua_setfield(L, -2, "linux");
    lua_pushinteger(L, sizeof(int) * 8);
    lua_setfield(L, -2, "int_bits");
    lua_pushinteger(L, sizeof(long) * 8);
    lua_setfield(L, -2, "long_bits");
    lua_pushinteger(L, sizeof(void*) * 8);
    lua_setfield(L, -2, "ptr_bits");
    lua_pushstring(L, VESK_VERSION_STRING);
    lua_setfield(L, -2, "version");
    lua_pushinteger(L, VESK_VERSION_MAJOR);
    lua_setfield(L, -2, "versionMajor");
    lua_pushinteger(L, VESK_VERSION_MINOR);
    lua_setfield(L, -2, "versionMinor");
    lua_pushinteger(L, VESK_VERSION_SP);
    lua_setfield(L, -2, "versionSP");
    lua_pushinteger(L, VESK_VERSION_BUILD);
    lua_setfield(L, -2, "versionBuild");
#ifdef NDEBUG
    lua_pushboolean(L, 1);
#else
    lua_pushboolean(L, 0);
#endif
    lua_setfield(L, -2, "releaseBuild");
}

}  // namespace
}  // namespace VeskCore

using namespace VeskCore;

int VeskCore_Init() {
    wxMutexLocker lock(s_DataGuard);
    static bool b_InitDone = false;
    if (b_InitDone)
        return 1;
    // Set first: a failed start is never tried again.
    b_InitDone = true;
    InitOpenSSL();
    SeedRandom();
    StartWx();
    return VeskLua_Init() ? 1 : 0;
}

int VeskCore_Term() {
    wxMutexLocker lock(s_DataGuard);
    static bool b_TermDone = false;
    int result = 1;
    if (!b_TermDone) {
        b_TermDone = true;
        result = VeskLua_Term() ? 1 : 0;
        TermOpenSSL();
    }
    return result;
}

int luaopen_vesk_core(lua_State* L) {
    InstallNativeErrorHandler();
    if (SLB::Manager::getInstance(L) == nullptr) {
        VeskLua_Init();
        SLB::Manager::defaultManager()->registerSLB(L);
    }
    lua_newtable(L);  // the module table, its own metatable
    lua_getglobal(L, "SLB");
    lua_setfield(L, -2, "__index");
    lua_pushvalue(L, -1);
    lua_setmetatable(L, -2);

    for (int level = 0; level < 8; ++level) {
        lua_pushinteger(L, level);
        lua_pushcclosure(L, wxLogLua, 1);
        lua_setfield(L, -2, logMethodName[level]);
    }
    for (const Command& command : commands) {
        lua_pushlightuserdata(L, reinterpret_cast<void*>(command.function));
        lua_pushcclosure(L, CommandBinding, 1);
        lua_setfield(L, -2, command.name);
    }
    PushVersionFields(L);
    return 1;
}
