// The handle that the host and the scripts hold on the running agent.
//
// A CApp is a reference-counted handle to one AppPrivateData: each default
// construction makes a new application, each copy shares it. The shared data
// outlives every thread: settings (kept in a Lua table inside the interpreter
// "App.Lua", where the configuration module runs too), the named services,
// and the registry that maps serialisable thread handles back to threads.
//
// Settings keys are UTF-8. Reserved keys: "app.heapDebug" (reads as 0),
// "app.trace", "app.trace+", "app.trace-" (switch the trace masks, never
// stored), and the path keys "app.path.bin", "app.lua.path", "app.lua.cpath",
// "app.lua.zippath", from which threads derive their package paths.
//
// Lifecycle: InitiateShutdown, then Shutdown, then drop the host's handle.
// Services run with a handle that the application keeps of itself, which
// counts for nothing (nor do copies of it); dropping the last counted handle
// while services run stops them and waits for them.
//
// Thread safety: every member may be called from any thread. Settings and
// configuration share one lock, services and the thread registry one each
// (services before threads). A configuration method must not call back into
// the same application's settings.
#pragma once

#include <wx/object.h>
#include <wx/string.h>

#include <string>
#include <vector>

#include "core/common/Export.h"
#include "core/common/Maps.h"

struct lua_State;

namespace VeskCore {

class AppPrivateData;
class CRunnable;

class VESK_EXPORT CApp : public wxObject {
  public:
    CApp();
    CApp(const CApp& other);
    CApp& operator=(const CApp& other);
    ~CApp() override;

    // The text of a setting; empty when missing or not readable as text.
    std::string Get(const std::string& name) const;
    // A number or flag; a missing key gives 0 or false. Always true.
    bool Get(const std::string& name, long long& value) const;
    bool Get(const std::string& name, bool& value) const;
    wxString GetWxString(const wxString& name) const;
    bool Set(const std::string& name, const std::string& value);
    bool SetWxString(const wxString& name, long long value);
    bool SetWxString(const wxString& name, const wxString& value);
    // All settings as text: {\n\t["key"] = value, ...\n}.
    std::string GetSettings() const;

    // Configuration through the Lua module vesk.Config, loaded by the first
    // ConfigSet. A read before it finds nothing. Failures are logged.
    std::string ConfigGet(const std::string& name) const;
    wxString ConfigGetXml(const std::string& name) const;
    bool ConfigSet(const std::string& xml);

    // Lua methods app:Get(name) and app:Set(name, value).
    static int Get(lua_State* L);
    static int Set(lua_State* L);

    // Starts the Lua module `name` on a thread of its own, as
    // require(name)():main(). True also when it is already in the table.
    bool ServiceStart(const wxString& name);
    // Asks the service to exit and waits for it, at most 499 times 10 ms.
    bool ServiceStop(const wxString& name);
    // Whether the service is in the table (its thread may have ended).
    bool ServiceIsRunning(const wxString& name) const;
    // The names of the services whose threads have not ended, sorted: what a
    // host watches to learn that every service has ended, or which ones a
    // stop is still waiting for.
    std::vector<wxString> RunningServices() const;

    wxUint32 ThreadRegister(CRunnable* thread);
    CRunnable* ThreadUnRegister(wxUint32 handle);
    CRunnable* ThreadGet(unsigned int handle);
    void ThreadGetAll(MapUint32ToPointer& out) const;

    // Makes every ShouldExit true and asks every service to exit; no wait.
    void InitiateShutdown();
    // Waits for every service to end (no time limit) and disposes of them.
    void Shutdown();
    // True after InitiateShutdown; else the calling CRunnable's TestDestroy;
    // else a plain sleep (at most kLongestSleepMs) and false.
    bool ShouldExit(unsigned int msecToWait) const;

    // The trace mask of service start and stop: "App".
    static const char* const s_Trace;

  protected:
    wxObjectRefData* CreateRefData() const override;

  private:
    friend class AppPrivateData;
    struct BorrowTag {};
    // A handle that refers to `data` without counting: the one that data keeps
    // of itself for its services.
    CApp(AppPrivateData* data, BorrowTag);

    AppPrivateData* Data() const;
    void Share(const CApp& other);
    void Release();

    bool borrowed = false;
};

}  // namespace VeskCore
