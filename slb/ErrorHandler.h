// Protected calls of Lua functions that report failures as text.
//
// call() works as lua_pcall, with a message handler that runs while the failed
// stack is still there: it passes the error message and each active function to
// begin() and stackElement(), and end() then gives the text of the failure.
// A non-string error value (a script's table, a host's sentinel) stays the error
// value, so a caller can still recognise it; only the text describes it.
//
// Thread safety: one handler per call at a time.
#pragma once

#include "slb/Export.h"

struct lua_State;
struct lua_Debug;

namespace SLB {

class SLB_EXPORT ErrorHandler {
  public:
    virtual ~ErrorHandler();

    // Calls the function below the nargs arguments on top of L, as
    // lua_pcall(L, nargs, nresults, handler). Returns lua_pcall's status; on
    // failure the error value is on top, as with lua_pcall.
    int call(lua_State* L, int nargs, int nresults);

    // The text of the last failed call.
    virtual const char* end() = 0;

  protected:
    // Start of a failure: error is the message, or a description of a non-string value.
    virtual void begin(const char* error) = 0;
    // One active function, innermost first; info is filled with "nSl".
    virtual void stackElement(int level, lua_Debug* info) = 0;

  private:
    static int messageHandler(lua_State* L);
    void describeUnhandled(lua_State* L);
};

}  // namespace SLB
