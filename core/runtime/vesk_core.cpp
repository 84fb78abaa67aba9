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

#include "core/api/VeskLua.h"
#include "core/host/PlatformString.h"
#include "core/runtime/LogTrace.h"
#include "core/runtime/Version.h"
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

void InitOpenSSL() {
    OPENSSL_add_all_algorithms_noconf();
    SSL_library_init();
    SSL_load_error_strings();
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
        CRYPTO_free(sk_SSL_COMP_pop(methods), __FILE__, __LINE__);
}

void TermOpenSSL() {
    ERR_remove_state(0);
    CONF_modules_unload(1);
    ERR_free_strings();
    EVP_cleanup();
    FreeCompressionMethods();
    CRYPTO_cleanup_all_ex_data();
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
    PushVersionFields(L);
    return 1;
}
