#include "core/runtime/AppPrivateData.h"

#include <openssl/rand.h>
#include <wx/log.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <lua.hpp>

#include "core/common/SystemUtil.h"
#include "core/runtime/LogTrace.h"
#include "core/runtime/LuaThread.h"

namespace VeskCore {
namespace {

constexpr const char* kPathKeys[] = {"app.path.bin", "app.lua.path", "app.lua.cpath",
                                     "app.lua.zippath"};

// A service name stands inside a Lua long string and in a module path.
constexpr const char kForbiddenInServiceName[] = "[=]'\" \\\n\r\t;";

bool IsPathKey(const char* name) {
    for (const char* key : kPathKeys)
        if (strcmp(name, key) == 0)
            return true;
    return false;
}

// A setting copied out of App.Lua, so that it can be pushed into another
// state after the lock is gone: a memory error there must not leave the
// settings locked for ever.
struct SettingCopy {
    int type = LUA_TNIL;
    bool flag = false;
    lua_Number number = 0;
    std::string bytes;
    void* pointer = nullptr;

    void Read(lua_State* L, int index) {
        type = lua_type(L, index);
        switch (type) {
            case LUA_TBOOLEAN:
                flag = lua_toboolean(L, index) != 0;
                break;
            case LUA_TNUMBER:
                number = lua_tonumberx(L, index, nullptr);
                break;
            case LUA_TSTRING: {
                size_t length = 0;
                const char* text = lua_tolstring(L, index, &length);
                bytes.assign(text, length);
                break;
            }
            case LUA_TLIGHTUSERDATA:
                pointer = lua_touserdata(L, index);
                break;
            default:
                type = LUA_TNIL;
        }
    }

    // Pushes (+1) the copy; false when nothing could be copied (nil pushed).
    bool Push(lua_State* L) const {
        switch (type) {
            case LUA_TBOOLEAN:
                lua_pushboolean(L, flag ? 1 : 0);
                return true;
            case LUA_TNUMBER:
                lua_pushnumber(L, number);
                return true;
            case LUA_TSTRING:
                lua_pushlstring(L, bytes.data(), bytes.size());
                return true;
            case LUA_TLIGHTUSERDATA:
                lua_pushlightuserdata(L, pointer);
                return true;
            default:
                lua_pushnil(L);
                return false;
        }
    }
};

std::string TopText(lua_State* L) {
    size_t length = 0;
    const char* text = lua_tolstring(L, -1, &length);
    return text != nullptr ? std::string(text, length) : std::string();
}

}  // namespace

AppPrivateData::AppPrivateData() {
    lua_State* const L = lua.L();
    lua_createtable(L, 0, 20);  // stays at settingsIndex for the object's life
    settingsIndex = lua_gettop(L);
    lua_pushvalue(L, settingsIndex);
    lua_setglobal(L, "settings");
}

AppPrivateData::~AppPrivateData() {
    InitiateShutdown();
    Shutdown();
}

void AppPrivateData::Set(const char* name, int type, unsigned long value, unsigned long size) {
    if (name == nullptr)
        return;
    const bool isString = type == kString && value != 0;
    const std::string text =
        isString ? std::string(reinterpret_cast<const char*>(value), size) : std::string();
    // The trace switches take no lock: the mask list is wx's.
    if (strcmp(name, "app.trace") == 0) {
        TraceMasksSet(text);
        return;
    }
    if (strcmp(name, "app.trace+") == 0) {
        TraceMasksAdd(text);
        return;
    }
    if (strcmp(name, "app.trace-") == 0) {
        TraceMasksRemove(text);
        return;
    }
    wxMutexLocker lock(settingsMutex);
    lua_State* const L = lua.L();
    lua_pushstring(L, name);
    PushValue(type, value, size);
    lua_rawset(L, settingsIndex);
    if (IsPathKey(name))
        RebuildPackagePaths();
}

void AppPrivateData::PushValue(int type, unsigned long value, unsigned long size) {
    lua_State* const L = lua.L();
    switch (type) {
        case kBoolean:
            lua_pushboolean(L, value != 0 ? 1 : 0);
            break;
        case kLightUserdata:
            lua_pushlightuserdata(L, reinterpret_cast<void*>(value));
            break;
        case kNumber:
            lua_pushnumber(L, *reinterpret_cast<const double*>(value));
            break;
        case kString:
            lua_pushlstring(L, reinterpret_cast<const char*>(value), size);
            break;
        case kInteger:
            // A Lua number: beyond 2^53 the value loses precision.
            lua_pushnumber(L, static_cast<lua_Number>(static_cast<long long>(value)));
            break;
        default:
            lua_pushnil(L);  // removes the key
    }
}

// REQUIRES: settingsMutex held.
std::string AppPrivateData::SettingText(const char* key) {
    lua_State* const L = lua.L();
    lua_getfield(L, settingsIndex, key);  // +1
    std::string text = lua_isstring(L, -1) ? TopText(L) : std::string();
    lua_pop(L, 1);
    return text;
}

// REQUIRES: settingsMutex held.
void AppPrivateData::RebuildPackagePaths() {
    lua.SetPackagePaths(SettingText("app.path.bin"), SettingText("app.lua.path"),
                        SettingText("app.lua.cpath"), SettingText("app.lua.zippath"));
}

bool AppPrivateData::Get(const char* name, int type, void* out, unsigned long* size) {
    if (out == nullptr || name == nullptr)
        return false;
    unsigned long ignored = 0;
    if (size == nullptr)
        size = &ignored;
    SettingCopy copy;
    lua_Number number = 0;
    lua_Integer integer = 0;
    {
        wxMutexLocker lock(settingsMutex);
        lua_State* const L = lua.L();
        if (strcmp(name, "app.heapDebug") == 0) {
            lua_pushstring(L, name);
            lua_pushinteger(L, 0);
            lua_rawset(L, settingsIndex);
        } else if (strcmp(name, "app.trace") == 0) {
            lua_pushstring(L, name);
            const std::string masks = TraceMasksGet();
            lua_pushlstring(L, masks.data(), masks.size());
            lua_rawset(L, settingsIndex);
        }
        lua_pushstring(L, name);
        lua_rawget(L, settingsIndex);  // +1
        switch (type) {
            case kAnyValue:
                copy.Read(L, -1);
                break;
            case kBoolean:
                *static_cast<bool*>(out) = lua_toboolean(L, -1) != 0;
                *size = 1;
                break;
            case kNumber:
                number = lua_tonumberx(L, -1, nullptr);
                *static_cast<double*>(out) = number;
                *size = 8;
                break;
            case kString: {
                size_t length = 0;
                const char* text = lua_tolstring(L, -1, &length);
                static_cast<std::string*>(out)->assign(text != nullptr ? text : "", length);
                *size = length;
                break;
            }
            case kInteger:
                integer = lua_tointegerx(L, -1, nullptr);
                *static_cast<long long*>(out) = integer;
                *size = 8;
                break;
            default:
                lua_pop(L, 1);
                return false;
        }
        lua_pop(L, 1);
    }
    if (type == kAnyValue)
        return copy.Push(static_cast<lua_State*>(out));
    return true;
}

void AppPrivateData::Get(lua_State* L, int nameIndex) {
    const char* name = lua_tolstring(L, nameIndex, nullptr);
    Get(name, kAnyValue, L, nullptr);
}

void AppPrivateData::Set(lua_State* L, int nameIndex, int valueIndex) {
    const char* name = lua_tolstring(L, nameIndex, nullptr);
    switch (lua_type(L, valueIndex)) {
        case LUA_TLIGHTUSERDATA:
            Set(name, kLightUserdata,
                reinterpret_cast<unsigned long>(lua_touserdata(L, valueIndex)), 0);
            break;
        case LUA_TNUMBER: {
            const double number = lua_tonumberx(L, valueIndex, nullptr);
            Set(name, kNumber, reinterpret_cast<unsigned long>(&number), 8);
            break;
        }
        case LUA_TSTRING: {
            size_t length = 0;
            const char* bytes = lua_tolstring(L, valueIndex, &length);
            Set(name, kString, reinterpret_cast<unsigned long>(bytes), length);
            break;
        }
        case LUA_TBOOLEAN:
            Set(name, kBoolean, lua_toboolean(L, valueIndex) != 0 ? 1 : 0, 1);
            break;
        default:
            // A script can't delete a setting.
            luaL_argerror(L, valueIndex, "Unsupported value type");
    }
}

std::string AppPrivateData::GetSettings() {
    std::string text = "{";
    wxMutexLocker lock(settingsMutex);
    lua_State* const L = lua.L();
    bool first = true;
    lua_pushnil(L);
    while (lua_next(L, settingsIndex) != 0) {  // key at -2, value at -1
        if (!first)
            text += ',';
        first = false;
        const bool quoted = lua_type(L, -1) == LUA_TSTRING;
        luaL_tolstring(L, -2, nullptr);  // +1, the key as text
        text += "\n\t[\"" + TopText(L) + "\"] = ";
        lua_pop(L, 1);
        luaL_tolstring(L, -1, nullptr);  // +1, the value as text
        text += quoted ? "\"" + TopText(L) + "\"" : TopText(L);
        lua_pop(L, 2);  // the text and the value; the key stays for lua_next
    }
    return text + "\n}";
}

// REQUIRES: settingsMutex held. Leaves the object at configIndex and in `cfg`.
bool AppPrivateData::LoadConfiguration() {
    lua_State* const L = lua.L();
    if (lua.RunScript(wxS("return require('vesk.Config')();"), 0, 1,
                      wxS("AppPrivateData::ConfigSet"), nullptr) != 0)
        return false;  // logged by the interpreter; the next call tries again
    if (!lua_istable(L, -1)) {
        lua_pop(L, 1);
        wxLogError(wxS("AppPrivateData::ConfigSet() - unexpected object type returned."));
        return false;
    }
    configIndex = lua_gettop(L);
    lua_pushvalue(L, configIndex);
    lua_setglobal(L, "cfg");
    return true;
}

bool AppPrivateData::ConfigSet(const std::string& xml) {
    wxMutexLocker lock(settingsMutex);
    if (configIndex == -2 && !LoadConfiguration())
        return false;
    lua_State* const L = lua.L();
    lua_getfield(L, configIndex, xml.empty() ? "Clear" : "Store_Internal");
    lua_pushvalue(L, configIndex);
    lua_pushlstring(L, xml.data(), xml.size());
    if (lua_pcallk(L, 2, 2, 0, 0, nullptr) != LUA_OK) {
        wxLogError(wxS("AppPrivateData::ConfigSet() - %s"), wxString::FromUTF8(TopText(L)));
        lua_pop(L, 1);
        return false;
    }
    const bool stored = lua_toboolean(L, -2) != 0;
    if (!stored)
        wxLogError(wxS("AppPrivateData::ConfigSet() - %s"), wxString::FromUTF8(TopText(L)));
    lua_pop(L, 2);
    return stored;
}

std::string AppPrivateData::ConfigGet(const std::string& name, bool asXml) {
    wxMutexLocker lock(settingsMutex);
    if (configIndex == -2)
        return std::string();
    lua_State* const L = lua.L();
    lua_getfield(L, configIndex, "Fetch_Internal");
    lua_pushvalue(L, configIndex);
    lua_pushlstring(L, name.data(), name.size());
    lua_pushboolean(L, asXml ? 1 : 0);
    if (lua_pcallk(L, 3, 1, 0, 0, nullptr) != LUA_OK) {
        wxLogError(wxS("AppPrivateData::ConfigGet() - %s"), wxString::FromUTF8(TopText(L)));
        lua_pop(L, 1);
        return std::string();
    }
    std::string value;
    if (lua_type(L, -1) == LUA_TSTRING || lua_type(L, -1) == LUA_TNUMBER)
        value = TopText(L);
    else
        wxLogError(wxS("AppPrivateData::ConfigGet() - unexpected object type returned."));
    lua_pop(L, 1);
    return value;
}

bool AppPrivateData::ServiceStart(const wxString& name) {
    const std::string utf8 = name.utf8_string();
    LogTrace(CApp::s_Trace, "ServiceStart('%s')", utf8.c_str());
    if (utf8.find_first_of(kForbiddenInServiceName) != std::string::npos) {
        wxLogError(wxS("CApp::ServiceStart() - invalid service name '%s'"), name);
        return false;
    }
    wxMutexLocker lock(serviceMutex);
    // A key test only: a service that ended by itself is not started again.
    if (services.find(name) != services.end())
        return true;
    const wxString chunk =
        wxString::Format(wxS("local svc = require [[%s]];\nsvc():main();"), name);
    auto* thread = new CLuaThread(chunk, utf8, &self);
    thread->start(50, true, 0);
    services[name] = thread;
    return true;
}

// REQUIRES: nothing locked. True with serviceMutex locked once the thread
// has ended; false, unlocked, when the entry went or time ran out.
bool AppPrivateData::WaitForServiceEnd(const wxString& name, CLuaThread* thread) {
    for (int polls = 1; polls < 500; ++polls) {
        serviceMutex.Lock();
        const auto entry = services.find(name);
        if (entry == services.end() || entry->second != thread) {
            serviceMutex.Unlock();
            return false;
        }
        if (!thread->isRunning())
            return true;
        serviceMutex.Unlock();
        wxThread::Sleep(10);
    }
    return false;
}

bool AppPrivateData::ServiceStop(const wxString& name) {
    const std::string utf8 = name.utf8_string();
    LogTrace(CApp::s_Trace, "ServiceStop('%s')", utf8.c_str());
    CLuaThread* thread;
    {
        wxMutexLocker lock(serviceMutex);
        const auto entry = services.find(name);
        if (entry == services.end())
            return false;
        thread = static_cast<CLuaThread*>(entry->second);
        LogTrace(CApp::s_Trace, "ServiceStop('%s') - service is running. Asking it to terminate.",
                 utf8.c_str());
        if (thread->isRunning()) {
            thread->requestExit();
            thread->interrupt();
        }
    }
    wxThread::Yield();
    if (!WaitForServiceEnd(name, thread))
        return false;
    LogTrace(CApp::s_Trace, "ServiceStop('%s') - service is stopped.", utf8.c_str());
    thread->join();
    delete thread;
    services.erase(name);
    serviceMutex.Unlock();
    return true;
}

bool AppPrivateData::ServiceIsRunning(const wxString& name) {
    wxMutexLocker lock(serviceMutex);
    return ServiceIsRunningHaveLock(name);
}

bool AppPrivateData::ServiceIsRunningHaveLock(const wxString& name) const {
    return services.find(name) != services.end();
}

std::vector<wxString> AppPrivateData::RunningServices() {
    std::vector<wxString> names;
    {
        wxMutexLocker lock(serviceMutex);
        for (const auto& entry : services)
            if (static_cast<CLuaThread*>(entry.second)->isRunning())
                names.push_back(entry.first);
    }
    std::sort(names.begin(), names.end());
    return names;
}

wxUint32 AppPrivateData::ThreadRegister(CRunnable* thread) {
    wxUint32 candidate = SystemTickCount();
    wxUint16 step = 0;
    if (RAND_bytes(reinterpret_cast<unsigned char*>(&step), sizeof step) != 1)
        step = static_cast<wxUint16>(reinterpret_cast<uintptr_t>(thread) >> 4);
    // Odd, so that stepping visits every 32-bit value before it repeats: a
    // step of 0 would try the same taken handle for ever.
    step |= 1;
    for (;;) {
        // 0 is the handle of a thread that is not registered.
        if (candidate != 0) {
            wxMutexLocker lock(threadMutex);
            const auto entry = threads.find(candidate);
            if (entry == threads.end() || entry->second == thread) {
                threads[candidate] = thread;
                return candidate;
            }
        }
        candidate -= step;
    }
}

CRunnable* AppPrivateData::ThreadUnRegister(wxUint32 handle) {
    wxMutexLocker lock(threadMutex);
    const auto entry = threads.find(handle);
    if (entry == threads.end())
        return nullptr;
    auto* thread = static_cast<CRunnable*>(entry->second);
    threads.erase(entry);
    return thread;
}

CRunnable* AppPrivateData::ThreadGet(wxUint32 handle) {
    wxMutexLocker lock(threadMutex);
    const auto entry = threads.find(handle);
    return entry == threads.end() ? nullptr : static_cast<CRunnable*>(entry->second);
}

void AppPrivateData::ThreadGetAll(MapUint32ToPointer& out) {
    out.clear();
    wxMutexLocker lock(threadMutex);
    out = threads;
}

void AppPrivateData::InitiateShutdown() {
    wxMutexLocker lock(serviceMutex);
    for (auto& entry : services) {
        auto* thread = static_cast<CLuaThread*>(entry.second);
        if (thread->isRunning()) {
            thread->requestExit();
            thread->interrupt();
        }
    }
}

// Holds serviceMutex throughout: a ServiceStart meanwhile waits for the end.
void AppPrivateData::Shutdown() {
    wxMutexLocker lock(serviceMutex);
    while (!services.empty()) {
        const auto entry = services.begin();
        auto* thread = static_cast<CLuaThread*>(entry->second);
        while (thread->isRunning())
            wxThread::Sleep(10);
        thread->join();
        delete thread;
        services.erase(entry);
    }
}

}  // namespace VeskCore
