#include "agent/ServiceHost.h"

#include <sys/stat.h>
#include <unistd.h>
#include <wx/log.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <thread>

#include "agent/StateDirectory.h"
#include "core/runtime/App.h"

namespace {

// How often the agent looks whether any service is left while it waits.
constexpr long kWatchIntervalMs = 250;
// How often it looks while services stop.
constexpr auto kStopPoll = std::chrono::milliseconds(10);

wxString Joined(const std::vector<wxString>& names) {
    wxString text;
    for (const wxString& name : names)
        text += (text.empty() ? wxS("") : wxS(", ")) + name;
    return text;
}

}  // namespace

CServiceHost::CServiceHost(const CAgentOptions& options) : options(options) {}

sigset_t CServiceHost::StopSignals() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGHUP);
    return signals;
}

void CServiceHost::Configure(VeskCore::CApp& app) const {
    app.Set("app.path.bin", options.binPath);
    app.Set("app.lua.path", options.luaPath);
    app.Set("app.lua.cpath", options.luaCPath);
    app.Set("app.lua.zippath", options.zipPath);
    if (!options.traceMasks.empty())
        app.Set("app.trace", options.traceMasks);
    app.Set("agent.state.dir", options.stateDir);
    for (const auto& [name, value] : options.settings)
        app.Set(name, value);
}

int CServiceHost::Run() {
    // What the agent and its scripts write (configuration, keys) is theirs alone.
    umask(077);
    CStateDirectory state(options.stateDir);
    std::string error;
    if (!options.stateDir.empty() && !state.Claim(error)) {
        wxLogError(wxS("vesk-agent: %s"), wxString::FromUTF8(error));
        return 1;
    }
    VeskCore::CApp app;
    Configure(app);
    // A write of nothing loads the stored configuration, so that services
    // read it from their start.
    if (!options.stateDir.empty())
        app.ConfigSet("<Config/>");
    for (const std::string& service : options.services)
        app.ServiceStart(wxString::FromUTF8(service));

    const bool stopped = WaitForStop(app);
    app.InitiateShutdown();
    if (!WaitForServicesToEnd(app))
        Abandon(app);
    app.Shutdown();
    wxLogMessage(wxS("vesk-agent: stopped"));
    return stopped ? 0 : 1;
}

bool CServiceHost::WaitForStop(const VeskCore::CApp& app) const {
    const sigset_t signals = StopSignals();
    const timespec interval{0, kWatchIntervalMs * 1000000L};
    for (;;) {
        const int signal = sigtimedwait(&signals, nullptr, &interval);
        if (signal > 0) {
            wxLogMessage(wxS("vesk-agent: signal %d, stopping the services"), signal);
            return true;
        }
        if (app.RunningServices().empty()) {
            wxLogError(wxS("vesk-agent: no service is running"));
            return false;
        }
    }
}

bool CServiceHost::WaitForServicesToEnd(const VeskCore::CApp& app) const {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(options.stopTimeout);
    while (!app.RunningServices().empty()) {
        if (std::chrono::steady_clock::now() >= deadline)
            return false;
        std::this_thread::sleep_for(kStopPoll);
    }
    return true;
}

// The services still running can't be joined, and destroying the
// application would wait for them: the process ends here, without running
// destructors that other threads still depend on.
void CServiceHost::Abandon(const VeskCore::CApp& app) const {
    wxLogError(wxS("vesk-agent: services still running %u s after the stop: %s; exiting"),
               options.stopTimeout, Joined(app.RunningServices()));
    fflush(stderr);
    _exit(1);
}
