#include "core/runtime/SettingsStore.h"

#include <wx/log.h>

#include <cstring>
#include <lua.hpp>

#include "core/runtime/LogTrace.h"

namespace VeskCore {
namespace {

constexpr const char* kPathKeys[] = {"app.path.bin", "app.lua.path", "app.lua.cpath",
                                     "app.lua.zippath"};

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

SettingsStore::SettingsStore() {
    lua_State* const L = lua.L();
    lua_createtable(L, 0, 20);  // stays at settingsIndex for the object's life
    settingsIndex = lua_gettop(L);
    lua_pushvalue(L, settingsIndex);
    lua_setglobal(L, "settings");
}

void SettingsStore::Set(const char* name, int type, unsigned long value, unsigned long size) {
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

void SettingsStore::PushValue(int type, unsigned long value, unsigned long size) {
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
std::string SettingsStore::SettingText(const char* key) {
    lua_State* const L = lua.L();
    lua_getfield(L, settingsIndex, key);  // +1
    std::string text = lua_isstring(L, -1) ? TopText(L) : std::string();
    lua_pop(L, 1);
    return text;
}

// REQUIRES: settingsMutex held.
void SettingsStore::RebuildPackagePaths() {
    lua.SetPackagePaths(SettingText("app.path.bin"), SettingText("app.lua.path"),
                        SettingText("app.lua.cpath"), SettingText("app.lua.zippath"));
}

bool SettingsStore::Get(const char* name, int type, void* out, unsigned long* size) {
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

void SettingsStore::Get(lua_State* L, int nameIndex) {
    const char* name = lua_tolstring(L, nameIndex, nullptr);
    Get(name, kAnyValue, L, nullptr);
}

void SettingsStore::Set(lua_State* L, int nameIndex, int valueIndex) {
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

std::string SettingsStore::GetSettings() {
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
bool SettingsStore::LoadConfiguration() {
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

bool SettingsStore::ConfigSet(const std::string& xml) {
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

std::string SettingsStore::ConfigGet(const std::string& name, bool asXml) {
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

}  // namespace VeskCore
