// An application's settings and its configuration, in one Lua interpreter
// ("App.Lua") where the configuration module runs too.
//
// Settings live in a Lua table, also the interpreter's global `settings`, so
// the configuration module sees them. The table, and the configuration
// object once loaded, stand at fixed indices at the bottom of that
// interpreter's stack; every operation leaves the stack as it found it.
//
// Thread safety: every member may be called from any thread; one mutex
// guards the interpreter and everything in it. A configuration method must
// not call back into the same store.
#pragma once

#include <wx/thread.h>

#include <string>

#include "core/lua/LuaInterpreter.h"

struct lua_State;

namespace VeskCore {

class SettingsStore {
  public:
    // Value type codes of the generic Get and Set; 1 to 4 are Lua's tags.
    enum ValueType {
        kAnyValue = -1,  // Get: push onto the lua_State* in `out`
        kBoolean = 1,
        kLightUserdata = 2,
        kNumber = 3,
        kString = 4,
        kInteger = 9,  // a 64-bit integer, stored as a Lua number
    };

    SettingsStore();
    SettingsStore(const SettingsStore&) = delete;
    SettingsStore& operator=(const SettingsStore&) = delete;

    // `value` carries the flag (1), pointer (2), address of a double (3),
    // address of the bytes (4, `size` their length) or the integer (9).
    // Another code removes the key.
    void Set(const char* name, int type, unsigned long value, unsigned long size);
    // `out` points to a bool (1), double (3), std::string (4), long long (9)
    // or is the lua_State* to push onto (-1); `size` receives the size.
    // False for a light userdata, for another code, and, with -1, for a value
    // that can't be copied (pushed as nil).
    bool Get(const char* name, int type, void* out, unsigned long* size);
    // Pushes (+1) the setting named at nameIndex of L.
    void Get(lua_State* L, int nameIndex);
    // Stores the value at valueIndex of L under the name at nameIndex; raises
    // a Lua argument error for a type that can't be stored.
    void Set(lua_State* L, int nameIndex, int valueIndex);
    std::string GetSettings();

    std::string ConfigGet(const std::string& name, bool asXml);
    bool ConfigSet(const std::string& xml);

  private:
    void RebuildPackagePaths();
    std::string SettingText(const char* key);
    void PushValue(int type, unsigned long value, unsigned long size);
    bool LoadConfiguration();

    wxMutex settingsMutex;
    CLuaInterpreter lua{false, "App.Lua", false};
    int configIndex = -2;
    int settingsIndex = 0;
};

}  // namespace VeskCore
