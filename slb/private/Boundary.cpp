#include "slb/private/Boundary.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <new>

#include "slb/NativeException.h"

namespace SLB {
namespace {

constexpr const char kHandlerFailed[] = "exception in native exception handler";

// Copies the text of the exception, then drops the exception before touching
// Lua, so that nothing is left to leak if pushing fails.
void defaultNativeExceptionHandler(lua_State* L, std::exception_ptr error) {
    char text[512] = "unknown C++ exception";
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        std::snprintf(text, sizeof text, "%s", e.what());
    } catch (...) {
    }
    error = nullptr;
    lua_pushstring(L, text);
}

std::atomic<NativeExceptionHandler> s_handler{&defaultNativeExceptionHandler};

// Calls the handler and returns before the caller raises, so the handler's
// copy of the exception_ptr is gone by then.
void callHandler(lua_State* L, std::exception_ptr error) noexcept {
    const int top = lua_gettop(L);
    try {
        s_handler.load()(L, std::move(error));
    } catch (...) {
        lua_settop(L, top);
    }
    if (lua_gettop(L) != top + 1) {
        lua_settop(L, top);
        lua_pushstring(L, kHandlerFailed);
    }
}

}  // namespace

void setNativeExceptionHandler(NativeExceptionHandler handler) {
    s_handler.store(handler ? handler : &defaultNativeExceptionHandler);
}

namespace Private {

void raiseError(const char* format, ...) {
    BinderError error;
    va_list args;
    va_start(args, format);
    std::vsnprintf(error.text_, sizeof error.text_, format, args);
    va_end(args);
    throw error;
}

void captureBinderError(ErrorSlot& slot, const BinderError& error) noexcept {
    slot.kind = ErrorSlot::Binder;
    std::snprintf(slot.message, sizeof slot.message, "%s", error.what());
}

void captureNativeError(ErrorSlot& slot) noexcept {
    slot.kind = ErrorSlot::Native;
    new (slot.native) std::exception_ptr(std::current_exception());
}

int pushCapturedError(lua_State* L, ErrorSlot& slot) noexcept {
    if (slot.kind == ErrorSlot::Binder) {
        luaL_where(L, 1);  // +1: "chunk:line: " of the calling Lua code
        lua_pushstring(L, slot.message);
        lua_concat(L, 2);
        return kRaise;
    }
    auto* held = std::launder(reinterpret_cast<std::exception_ptr*>(slot.native));
    std::exception_ptr error = std::move(*held);
    held->~exception_ptr();
    callHandler(L, std::move(error));
    return kRaise;
}

}  // namespace Private
}  // namespace SLB
