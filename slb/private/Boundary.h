// The one place where C++ exceptions are turned into Lua errors.
//
// Bound code reports binder errors ("Unknown class %s" and the like) by
// throwing BinderError, so the destructors of already-read arguments run. The
// boundary catches everything, copies what it needs into trivially destructible
// storage, leaves the catch block, pushes the error value and only then lets
// the caller raise it: lua_error never jumps over a live C++ object.
#pragma once

#include <climits>
#include <exception>
#include <lua.hpp>

#include "slb/Export.h"

namespace SLB::Private {

// Throws a BinderError with the printf-formatted text (truncated to 511 bytes).
[[noreturn]] SLB_EXPORT void raiseError(const char* format, ...)
    __attribute__((format(printf, 1, 2)));

// A binder error: its text, already formatted, without position information.
class SLB_EXPORT BinderError : public std::exception {
  public:
    const char* what() const noexcept override { return text_; }

  private:
    friend void raiseError(const char* format, ...);
    char text_[512];
};

// Result of a guarded body that left an error value on top of the stack.
constexpr int kRaise = INT_MIN;

// What left the catch block. Plain bytes: nothing here has a destructor.
struct ErrorSlot {
    enum Kind { Binder, Native } kind;
    char message[512];
    alignas(std::exception_ptr) unsigned char native[sizeof(std::exception_ptr)];
};

SLB_EXPORT void captureBinderError(ErrorSlot& slot, const BinderError& error) noexcept;
// REQUIRES: called inside a catch block.
SLB_EXPORT void captureNativeError(ErrorSlot& slot) noexcept;
// Pushes the error value of the slot (+1) and destroys what the slot held.
// Binder errors get the position of the calling Lua code, as luaL_error gives.
SLB_EXPORT int pushCapturedError(lua_State* L, ErrorSlot& slot) noexcept;

// Runs body(L); returns its result count, or kRaise with the error value on top.
template <class Body>
int guarded(lua_State* L, const Body& body) noexcept {
    ErrorSlot slot;
    try {
        return body(L);
    } catch (const BinderError& error) {
        captureBinderError(slot, error);
    } catch (...) {
        captureNativeError(slot);
    }
    return pushCapturedError(L, slot);
}

// The frame that raises holds nothing with a destructor.
template <class Body>
int protect(lua_State* L, const Body& body) {
    const int results = guarded(L, body);
    return results == kRaise ? lua_error(L) : results;
}

}  // namespace SLB::Private
