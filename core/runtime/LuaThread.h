// The thread that scripts and services run on, each with a Lua state of its
// own built on the thread itself.
//
// Its first chunk fixes its kind for good: given code, it runs the code once
// and ends (a one-shot); given the empty string, it stays alive as a worker,
// idle between chunks, and RunScript hands it one chunk at a time. Code moves
// between threads only this way, as source text: Lua values can't cross
// states. There is no queue: RunScript on a busy thread returns false.
//
// Ownership: the thread keeps a handle of its own on the application it was
// given, so a script that drops its App object first leaves no thread with a
// dangling one (a copy of a service's handle counts for nothing, as ever).
// Thread safety: RunScript, isIdle and IdleTime may be called from any thread.
#pragma once

#include <wx/string.h>

#include <memory>
#include <string>

#include "core/runtime/App.h"
#include "core/runtime/Runnable.h"

namespace VeskCore {

class VESK_EXPORT CLuaThread : public CRunnable {
  public:
    // `threadName` must not be empty (std::invalid_argument); it is cut to 63
    // bytes. With `app`, the thread registers there, and its state gets the
    // application's package paths and the global `app`.
    CLuaThread(const wxString& chunk, const std::string& threadName, CApp* app);
    // Stops the thread (asking it to exit) and waits for it, if it was started.
    ~CLuaThread() override;

    // Hands an idle worker `chunk` and wakes it; `awakenTarget` (may be null,
    // must outlive the chunk) is awakened once the chunk has ended. False,
    // with nothing changed, when the thread is not idle or already has a
    // chunk waiting.
    bool RunScript(const wxString& chunk, CRunnable* awakenTarget);
    bool isIdle() const { return idle.load(std::memory_order_relaxed); }
    // Milliseconds since the thread became idle; 0 when it is not idle.
    unsigned int IdleTime();

    const char* GetThreadName() const override { return threadName; }

    // The calling thread, or null when it is no CLuaThread.
    static CLuaThread* This();
    // Lua: thread:SetAwakenEvents({fd, ...}); the last descriptor is written
    // to wake the thread from a select().
    static int SetAwakenEvents(lua_State* L);

  protected:
    void OnRun() override;

  private:
    void PrepareState();
    bool RunOneChunk();
    CRunnable* BecomeIdle();

    std::atomic<bool> idle{false};
    wxMutex chunkMutex;
    wxString chunk;
    std::unique_ptr<CApp> app;
    CRunnable* awakenTarget = nullptr;
    char threadName[64];
    unsigned int idleSince = 0;
};

}  // namespace VeskCore
