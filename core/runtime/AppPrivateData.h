// What every CApp handle of one application shares: settings, configuration,
// services and the thread registry. Made and reached only through CApp.
//
// Settings live in a Lua table in the interpreter "App.Lua", also its global
// `settings`, so the configuration module running there sees them. The
// table, and the configuration object once loaded, stand at fixed indices at
// the bottom of that interpreter's stack; every operation leaves the stack as
// it found it.
//
// Locks: settingsMutex guards the interpreter and everything in it;
// serviceMutex the services, threadMutex the registry, always taken in that
// order. None is recursive.
#pragma once

#include <wx/object.h>
#include <wx/string.h>
#include <wx/thread.h>

#include <atomic>
#include <string>
#include <vector>

#include "core/common/Maps.h"
#include "core/lua/LuaInterpreter.h"
#include "core/runtime/App.h"

struct lua_State;

namespace VeskCore {

class CLuaThread;
class CRunnable;

class AppPrivateData : public wxObjectRefData {
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

    AppPrivateData();
    // The last safety net: asks the services to stop and waits for them.
    ~AppPrivateData() override;

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

    bool ServiceStart(const wxString& name);
    bool ServiceStop(const wxString& name);
    bool ServiceIsRunning(const wxString& name);
    bool ServiceIsRunningHaveLock(const wxString& name) const;
    std::vector<wxString> RunningServices();

    wxUint32 ThreadRegister(CRunnable* thread);
    CRunnable* ThreadUnRegister(wxUint32 handle);
    CRunnable* ThreadGet(wxUint32 handle);
    void ThreadGetAll(MapUint32ToPointer& out);

    void RequestShutdown() { shutdownRequested = true; }
    bool ShutdownRequested() const { return shutdownRequested; }
    void InitiateShutdown();
    void Shutdown();

  private:
    void RebuildPackagePaths();
    std::string SettingText(const char* key);
    void PushValue(int type, unsigned long value, unsigned long size);
    bool LoadConfiguration();
    bool WaitForServiceEnd(const wxString& name, CLuaThread* thread);

    std::atomic<bool> shutdownRequested{false};
    wxMutex settingsMutex;
    CLuaInterpreter lua{false, "App.Lua", false};
    wxMutex serviceMutex;
    MapStringToPointer services{100};
    wxMutex threadMutex;
    MapUint32ToPointer threads{100};
    int configIndex = -2;
    int settingsIndex = 0;
    // The handle services run with: it lives exactly as long as this object,
    // which outlives every service, and holds no count of its own.
    CApp self{this, CApp::BorrowTag{}};
};

}  // namespace VeskCore
