// The base of every thread of the library: a wxThread with a cooperative stop,
// a wake-up that reaches a thread waiting on its condition or in select(), a
// CPU limit kept by sleeping, and an owned Lua interpreter.
//
// A thread stops by itself: requestExit() sets a flag and wakes it, and the
// thread's OnRun sees the flag in TestDestroy(). Entry() is the one place
// where an exception escaping OnRun is turned into a numbered log message;
// the thread ends and the process runs on.
//
// Thread safety: requestExit, Awaken, interrupt and isRunning may be called
// from any thread. TestDestroy, CheckCPULimit and InitLua belong to the thread
// itself. GetCPUTimeStr reads the accounting of another thread without a lock.
#pragma once

#include <wx/string.h>
#include <wx/thread.h>

#include <atomic>
#include <memory>
#include <vector>

#include "core/common/Export.h"

struct lua_State;

namespace VeskCore {

class CApp;
class CLuaInterpreter;

// Milliseconds of CPU time (user and system) used by the calling thread; 0,
// after an error line, when the system can't tell.
VESK_EXPORT long long get_cpu_time();

class VESK_EXPORT CRunnable : public wxThread {
  public:
    // A joinable thread unless `detached`. `interruptible` lets interrupt()
    // send SIGUSR2, for which the process must then have a handler.
    // Throws std::logic_error when wx has not been started (VeskCore_Init):
    // wx can make no thread before.
    CRunnable(bool interruptible, int idealProcessor, bool detached);
    ~CRunnable() override;
    CRunnable(const CRunnable&) = delete;
    CRunnable& operator=(const CRunnable&) = delete;

    // Creates (when `create`) and runs the thread, once: a later call does
    // nothing. wx's failures are not reported (the thread then does not
    // run), and an exception on the way calls OnExit and is swallowed.
    void start(unsigned int priority, bool create, unsigned int stackSize);
    void startWithDefaults() { start(50, true, 0); }
    // Waits for the thread to end; at once if it has ended. Returns its exit
    // code (0, or -1 after an exception). REQUIRES: not this thread itself.
    int join();
    bool isRunning() const;

    virtual void requestExit();
    // Sends SIGUSR2 to an interruptible running thread, to break a blocking call.
    virtual void interrupt();
    // Wakes the thread from its condition and, when awaken events are set, from
    // a select() on the last of them (8 bytes written). An awakening that finds
    // the thread busy is kept: its next TestDestroy returns without waiting.
    virtual void Awaken();
    // The thread's loop test and sleep: true when it should stop. Otherwise
    // waits up to the longer of `msecToWait` and what the CPU limit demands
    // (0xFFFFFFFF: until awakened). Called from another thread it answers at
    // once, without waiting.
    virtual bool TestDestroy(unsigned int msecToWait);
    using wxThread::TestDestroy;
    virtual wxThreadError Delete(ExitCode* rc);

    virtual const char* GetThreadName() const = 0;

    // The descriptors Awaken writes to the last of; replaces the old list.
    void SetAwakenEvents(std::vector<int> events);
    // The same from a malloc/calloc array, which it takes and frees.
    void SetAwakenEvents(unsigned long* events, unsigned long count);

    void SetCPULimit(unsigned int percent) { cpuLimit.store(percent, std::memory_order_relaxed); }
    unsigned int GetCPULimit() const { return cpuLimit.load(std::memory_order_relaxed); }
    // Milliseconds the thread must sleep now to keep to its limit; 0 for none.
    unsigned int CheckCPULimit();
    // One report line of the thread's start, run time, CPU use and sleeps.
    wxString GetCPUTimeStr() const;

    wxUint32 GetHandle() const { return handle; }
    void Register(CApp* app);
    void UnRegister(CApp* app);

    // Replaces the thread's interpreter by a new one (unsandboxed, with the
    // binder) whose state leads back to this object (FromLua).
    void InitLua(const char* traceMask);
    CLuaInterpreter* Lua() const { return interpreter.get(); }
    lua_State* L() const;

    // The calling thread, or null when it is no CRunnable.
    static CRunnable* This();
    // The CRunnable whose interpreter owns L, or null.
    static CRunnable* FromLua(lua_State* L);

    // Platform hooks.
    void SetIdealProcessor(int processor);
    void SetThreadName(const char* name);

  protected:
    ExitCode Entry() override;
    void OnExit() override;
    virtual void OnRun() = 0;

  private:
    void ResetAccounting();
    ExitCode RunReporting();

    // Flags and accounting are written by one thread and read by others with
    // no lock, as plain values; atomics keep that well defined.
    template <typename T>
    using Shared = std::atomic<T>;

    bool interruptible;
    Shared<bool> running{false};
    Shared<bool> exitRequested{false};
    int idealProcessor;
    // The array may be replaced while another thread awakens this one.
    wxMutex eventsMutex;
    std::vector<int> awakenEvents;
    wxMutex awakenMutex;
    wxCondition awakenCondition{awakenMutex};
    bool awakened = false;  // guarded by awakenMutex
    unsigned int lastCheckTick = 0;
    Shared<long long> startCpuMs{0};
    Shared<long long> lastCpuMs{0};
    Shared<unsigned long long> limitSleepMs{0};
    Shared<unsigned long long> totalSleepMs{0};
    Shared<unsigned int> cpuLimit{0};
    Shared<long long> startTimeMs{-1};  // wall clock at Entry; -1 before
    wxUint32 handle = 0;
    std::unique_ptr<CLuaInterpreter> interpreter;
    // Set once the system thread runs, so that exactly a running thread is
    // joined. Written by start, which the owner calls before any join.
    bool created = false;
};

}  // namespace VeskCore
