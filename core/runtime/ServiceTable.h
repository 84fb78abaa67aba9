// An application's services: named Lua modules, each on a thread of its own,
// which the table owns from its start until it is stopped or the application
// shuts down.
//
// Thread safety: every member may be called from any thread; one mutex,
// taken before the thread registry's (a service's thread registers while the
// table is locked). Shutdown holds it throughout, so a ServiceStart meanwhile
// waits for the end.
#pragma once

#include <wx/string.h>

#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "core/runtime/LuaThread.h"

namespace VeskCore {

class CApp;

class ServiceTable {
  public:
    // Starts require(name)():main() on a thread of its own, running with
    // `app`. True also when the name is in the table already.
    bool Start(const wxString& name, CApp* app);
    // Asks the service to exit and waits, at most 499 times 10 ms; then
    // removes it. False when it isn't in the table or didn't end in time.
    bool Stop(const wxString& name);
    bool Contains(const wxString& name);
    std::vector<wxString> Running();
    // Asks every running service to exit; no wait.
    void AskAllToExit();
    // Waits for every service to end (no time limit) and disposes of them.
    void Shutdown();

  private:
    // The table locked once the service's thread has ended; not locked when
    // the entry went (another Stop took it) or time ran out.
    std::unique_lock<std::mutex> WaitForEnd(const wxString& name, const CLuaThread* thread);

    std::mutex mutex;
    std::map<wxString, std::unique_ptr<CLuaThread>> services;
};

}  // namespace VeskCore
