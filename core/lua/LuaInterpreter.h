// Owner of one Lua 5.2 state, and the only way the library makes one.
//
// A state holds the standard libraries, a `print` that writes to a stream or
// to the log, an `os.exit` that ends the running chunk instead of the process,
// and, at the bottom of its stack for its whole life, the traceback handler,
// the `os` table (unsandboxed states) and the standing `print` closure.
// Every operation leaves the stack as it found it, except that a successful
// RunScript leaves the chunk's results on top.
//
// Thread safety: none. One thread uses an interpreter at a time. The object
// must not move: the state refers to members by address.
#pragma once

#include <wx/string.h>

#include <memory>
#include <string>

#include "core/common/Export.h"
#include "core/lua/LuaChunkEnd.h"

class wxInputStream;
class wxOutputStream;
struct lua_State;
struct lua_Debug;

namespace VeskCore {

class VESK_EXPORT CLuaInterpreter {
  public:
    // `traceMask` names this interpreter's trace lines (null is ""). When the
    // mask stands exactly in the trace list at construction, every call,
    // return and line of Lua code is traced. `registerSLB` gives the state the
    // global SLB table of the binder. Throws std::bad_alloc when Lua cannot
    // allocate a state.
    CLuaInterpreter(bool sandboxed, const char* traceMask, bool registerSLB);
    virtual ~CLuaInterpreter();
    CLuaInterpreter(const CLuaInterpreter&) = delete;
    CLuaInterpreter& operator=(const CLuaInterpreter&) = delete;

    lua_State* L() const { return state.get(); }
    // Whether the state was made without debug, io and os.
    bool IsSandboxed() const { return sandboxed; }

    // Text (message and traceback) of the last run-time failure; empty after
    // success, a load failure or an os.exit, and when the error value was no
    // text.
    const wxString& GetErrorInfo() const { return errorInfo; }
    // What the stand-alone `lua` shows for the last run-time failure whose
    // error value was no text: the value's __tostring, else "(no error
    // message)". Empty in every other case.
    const wxString& GetErrorValueText() const { return errorValueText; }
    // The status that the last chunk ended by os.exit asked for, as the
    // stand-alone `lua` reads it (true 0, false 1, a number, default 0).
    int GetExitStatus() const { return exitStatus; }

    // Loads all of `source` and runs it under the traceback handler. Returns
    // 0, a Lua load or run status, or -1 when the chunk called os.exit. With
    // `output`, print() writes to it and a run-time failure is left to the
    // caller in GetErrorInfo(); without, both go to the log. Load failures
    // are always logged. A C++ exception thrown by a bound function reaches
    // the chunk as a Lua error, which it may catch.
    int RunScript(wxInputStream& source, int nArgs, int nResults, const wxString& chunkName,
                  wxOutputStream* output);
    int RunScript(const wxString& source, int nArgs, int nResults, const wxString& chunkName,
                  wxOutputStream* output);

    // Derives package.path and package.cpath from the install location;
    // non-empty `luaPath`/`cPath` come first. A non-empty `zipPath` becomes
    // package.zippath and adds a zip searcher over it (one more per call).
    void SetPackagePaths(const std::string& binPath, const std::string& luaPath,
                         const std::string& cPath, const std::string& zipPath);

    static int LuaPrint(lua_State* L);
    static int LuaTraceback(lua_State* L);
    static int OsExit(lua_State* L);
    static void LuaHook(lua_State* L, lua_Debug* ar);

  private:
    void Collect();
    void TraceMemory(const char* stage);
    void CollectAndTrace(const char* stage);
    void SetPrint(wxOutputStream* output);
    void InstallHookIfVerbose();
    int RunLoaded(int top, int nArgs, int nResults, wxOutputStream* output);
    void KeepError(int status, wxOutputStream* output);
    void DescribeErrorValue();

    bool sandboxed;
    int tracebackIndex = 0;
    wxString errorInfo;
    wxString errorValueText;
    int exitStatus = 0;
    // Closed by its holder, so that a constructor that throws half-way
    // leaves no state behind.
    struct Close {
        void operator()(lua_State* L) const;
    };
    std::unique_ptr<lua_State, Close> state;
    int printIndex = 0;
    wxString traceMask;
    std::string traceMaskUtf8;  // the mask as LogTrace takes it, made once
    std::unique_ptr<CLuaChunkEnd> chunkEnd;
};

}  // namespace VeskCore
