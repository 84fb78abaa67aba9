#include "core/lua/NativeError.h"

#include <wx/wxsqlite3.h>

#include <cstdio>
#include <lua.hpp>
#include <string>

#include "slb/NativeException.h"

namespace VeskCore {
namespace {

std::string DescribeException(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return e.what();
    } catch (const wxSQLite3Exception& e) {
        return e.GetMessage().utf8_string();
    } catch (const char* text) {
        return text != nullptr ? text : "unknown C++ exception";
    } catch (int number) {
        return "C++ exception " + std::to_string(number);
    } catch (unsigned int number) {
        return "C++ exception " + std::to_string(number);
    } catch (...) {
        return "unknown C++ exception";
    }
}

}  // namespace

void InstallNativeErrorHandler() {
    SLB::setNativeExceptionHandler(&PushNativeError);
}

// Only plain bytes are alive while Lua runs: a memory error in a push jumps
// over this frame.
void PushNativeError(lua_State* L, std::exception_ptr error) {
    char text[1024] = "unknown C++ exception";
    try {
        std::snprintf(text, sizeof text, "%s", DescribeException(error).c_str());
    } catch (...) {
    }
    error = nullptr;
    luaL_where(L, 1);  // +1: "chunk:line: " of the calling Lua code
    lua_pushstring(L, text);
    lua_concat(L, 2);
}

}  // namespace VeskCore
