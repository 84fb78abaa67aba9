// How a C++ exception that leaves a bound function reaches a script: as an
// ordinary Lua error that the script's pcall can catch.
//
// The binder catches every exception at its boundary and raises the value
// pushed here only after the catch block has ended, so no C++ frame is
// skipped by Lua's longjmp. The text is what the exception says, behind the
// position of the calling Lua code, as for any error raised by a C function.
#pragma once

#include <exception>

struct lua_State;

namespace VeskCore {

// Makes PushNativeError the binder's handler. Idempotent; every state the
// library builds or enters calls it before a bound function can run.
void InstallNativeErrorHandler();

// Pushes (+1) the error text of `error`: its what() (a standard exception),
// its message (a database exception), the text itself (a thrown C string),
// the number (a thrown int), else "unknown C++ exception". Never raises.
void PushNativeError(lua_State* L, std::exception_ptr error);

}  // namespace VeskCore
