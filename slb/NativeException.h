// What the binder does with a C++ exception that leaves a bound function.
//
// Lua is built as C and unwinds with longjmp, so no exception may pass through
// a Lua frame. Every bound call (typed functions, methods, constructors and Lua
// C functions wrapped by FuncCall::create) catches everything at one boundary,
// leaves the catch block, asks the handler for an error value and raises it
// with lua_error.
#pragma once

#include <exception>

#include "slb/Export.h"

struct lua_State;

namespace SLB {

// Called at the binder's boundary after a bound function threw, outside the catch block.
// It must push exactly one value (the error value); the binder then raises it with lua_error.
using NativeExceptionHandler = void (*)(lua_State* L, std::exception_ptr error);

// Installs the process-wide handler; null restores the default, which pushes
// the what() text of a std::exception and "unknown C++ exception" otherwise.
// The handler must not raise a Lua error itself, and should not throw: a throw
// is replaced by the text "exception in native exception handler", and a
// wrong count of pushed values is corrected to one such text.
// Thread safety: may be called at any time; calls already running use either.
SLB_EXPORT void setNativeExceptionHandler(NativeExceptionHandler handler);

}  // namespace SLB
