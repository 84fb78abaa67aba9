// The agent's state directory, held for the agent's whole life.
//
// Two agents writing one configuration corrupt it, so the directory is
// claimed with an exclusive lock on the file "vesk-agent.lock" inside it,
// which names the holder's process id. The kernel drops the lock when the
// process ends, however it ends, so a killed agent never blocks the next.
// Temporary files that a killed writer left behind are removed once the
// lock is held, when no writer can be at work.
#pragma once

#include <string>

class CStateDirectory {
  public:
    explicit CStateDirectory(std::string path);
    ~CStateDirectory();
    CStateDirectory(const CStateDirectory&) = delete;
    CStateDirectory& operator=(const CStateDirectory&) = delete;

    // Makes the directory (0700) if missing, tightens it, takes the lock and
    // removes stale temporary files. False, with `error` set, when the
    // directory can't be made or another agent holds it.
    bool Claim(std::string& error);

  private:
    void RemoveStaleTemporaries() const;

    std::string path;
    int lockFd = -1;
};
