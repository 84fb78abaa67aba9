// Runs the agent's services until it is told to stop, or until none is left.
//
// Stop signals (SIGTERM, SIGINT, SIGHUP) are taken by sigwait on the main
// thread; the caller blocks them before any thread exists. A stop asks every
// service to exit and waits at most the stop time-out for them: a service
// that never looks (a busy loop, a blocking call) must not keep the agent
// past the moment its supervisor gives up on it, so the agent then names it
// and ends the process. An agent whose services have all ended, or never
// started, exits non-zero so that a supervisor restarts it.
#pragma once

#include <signal.h>

#include <string>
#include <vector>

#include "agent/AgentOptions.h"

namespace VeskCore {
class CApp;
}

class CServiceHost {
  public:
    explicit CServiceHost(const CAgentOptions& options);

    // The signals that stop the agent.
    static sigset_t StopSignals();

    // The agent's exit status: 0 after a stop in time, 1 when the state
    // directory is taken or every service has ended. A stop that runs past
    // the time-out does not return: the process exits with status 1.
    int Run();

  private:
    void Configure(VeskCore::CApp& app) const;
    // Waits for a stop signal while services run; false when none is left.
    bool WaitForStop(const VeskCore::CApp& app) const;
    // True when every service ended within the stop time-out.
    bool WaitForServicesToEnd(const VeskCore::CApp& app) const;
    [[noreturn]] void Abandon(const VeskCore::CApp& app) const;

    const CAgentOptions& options;
};
