// Debug-build check that a piece of Lua glue leaves the stack as its comment says.
// Only for functions that raise no Lua error: the guard has a destructor.
#pragma once

#include <lua.hpp>

#ifndef NDEBUG
#include <cassert>
#include <exception>

namespace SLB::Private {

class StackCheck {
  public:
    StackCheck(lua_State* L, int delta)
        : L_(L), expected_(lua_gettop(L) + delta), exceptions_(std::uncaught_exceptions()) {}
    ~StackCheck() {
        // A C++ exception leaves the stack as it was; only a normal return is checked.
        if (std::uncaught_exceptions() == exceptions_)
            assert(lua_gettop(L_) == expected_ && "Lua stack not balanced");
    }
    StackCheck(const StackCheck&) = delete;
    StackCheck& operator=(const StackCheck&) = delete;

  private:
    lua_State* L_;
    int expected_;
    int exceptions_;
};

}  // namespace SLB::Private

#define SLB_STACK_CHECK(L, delta) ::SLB::Private::StackCheck slbStackCheck_((L), (delta))
#else
#define SLB_STACK_CHECK(L, delta) ((void)0)
#endif
