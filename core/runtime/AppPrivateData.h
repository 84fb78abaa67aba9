// What every CApp handle of one application shares: its settings and
// configuration, its services and its thread registry, each a store with a
// lock of its own (services before threads when both are taken). Made and
// reached only through CApp.
#pragma once

#include <wx/object.h>
#include <wx/string.h>

#include <atomic>
#include <string>
#include <vector>

#include "core/runtime/App.h"
#include "core/runtime/ServiceTable.h"
#include "core/runtime/SettingsStore.h"
#include "core/runtime/ThreadRegistry.h"

namespace VeskCore {

class AppPrivateData : public wxObjectRefData {
  public:
    AppPrivateData() = default;
    // The last safety net: asks the services to stop and waits for them.
    ~AppPrivateData() override;

    SettingsStore& Settings() { return settings; }
    ThreadRegistry& Threads() { return threads; }

    bool ServiceStart(const wxString& name) { return services.Start(name, &self); }
    bool ServiceStop(const wxString& name) { return services.Stop(name); }
    bool ServiceIsRunning(const wxString& name) { return services.Contains(name); }
    std::vector<wxString> RunningServices() { return services.Running(); }

    void RequestShutdown() { shutdownRequested = true; }
    bool ShutdownRequested() const { return shutdownRequested; }
    void InitiateShutdown() { services.AskAllToExit(); }
    void Shutdown() { services.Shutdown(); }

  private:
    std::atomic<bool> shutdownRequested{false};
    SettingsStore settings;
    ThreadRegistry threads;
    // Destroyed before the registry its threads unregister from.
    ServiceTable services;
    // The handle services run with: it lives exactly as long as this object,
    // which outlives every service, and holds no count of its own.
    CApp self{this, CApp::BorrowTag{}};
};

}  // namespace VeskCore
