// Ends a running chunk from deep inside it: the way `os.exit` leaves Lua.
//
// Lua is built as C, so the only safe way out of a chunk is a Lua error. The
// reason is recorded here and the error value is a private sentinel; a
// script's own pcall, xpcall or coroutine may catch that error, so a count
// hook on every thread the error passed through raises it again until the
// chunk has unwound to the interpreter's protected call. The interpreter then
// reads the reason and rearms the record with Reset().
//
// One object belongs to one lua_State (and its coroutines), is found through
// the registry, and must neither move nor outlive the state's use. Not thread
// safe: a state is used by one thread at a time.
#pragma once

struct lua_State;
struct lua_Debug;

namespace VeskCore {

class CLuaChunkEnd {
  public:
    enum class Reason { None, Exit };

    // Attaches to `L`: registers this object and wraps coroutine.resume and
    // coroutine.wrap so that the end passes from a coroutine to its resumer.
    explicit CLuaChunkEnd(lua_State* L);
    CLuaChunkEnd(const CLuaChunkEnd&) = delete;
    CLuaChunkEnd& operator=(const CLuaChunkEnd&) = delete;

    // The record attached to L's state, or null.
    static CLuaChunkEnd* From(lua_State* L);

    // Records an exit with its status and raises. Never returns.
    [[noreturn]] static void RaiseExit(lua_State* L, int status);

    Reason GetReason() const { return reason; }
    // The status the chunk asked to exit with; meaningful after an Exit.
    int GetExitStatus() const { return exitStatus; }

    // Forgets the reason and gives the main thread its own hook back.
    void Reset();

  private:
    void Arm(lua_State* L, Reason why);
    static void HookThread(lua_State* L);
    static void ReRaiseHook(lua_State* L, lua_Debug* ar);
    [[noreturn]] static void RaiseSentinel(lua_State* L);
    static void WrapCoroutineLibrary(lua_State* L);
    static int Resume(lua_State* L);
    static int Wrap(lua_State* L);
    static int CallWrapped(lua_State* L);

    lua_State* mainThread;
    Reason reason = Reason::None;
    int exitStatus = 0;
    // The main thread's own hook (the verbose trace hook, or none), saved
    // while the re-raising hook stands in its place.
    void (*savedHook)(lua_State*, lua_Debug*) = nullptr;
    int savedMask = 0;
    int savedCount = 0;
};

}  // namespace VeskCore
