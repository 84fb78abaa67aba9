// What the two Lua-backed streams share: the Lua function they call once a
// script has attached one with SetFn.
//
// A stream starts in string mode (it reads or gathers a string) and goes to
// callback mode, for good, when SetFn attaches a function. The function lives
// in the registry of the state that attached it; the stream must be used by
// that state's thread only, and destroyed while that state is open.
#pragma once

#include "core/common/Export.h"

struct lua_State;

namespace VeskCore {

class VESK_EXPORT CLuaStreamBase {
  public:
    CLuaStreamBase() = default;
    CLuaStreamBase(const CLuaStreamBase&) = delete;
    CLuaStreamBase& operator=(const CLuaStreamBase&) = delete;
    virtual ~CLuaStreamBase();

    // Lua: stream:SetFn(function). The last argument is the one attached; an
    // earlier function stays referenced until the state closes.
    static int SetFn(lua_State* L);

  protected:
    bool InCallbackMode() const;
    // Pushes the attached function onto its state (+1); false, with nothing
    // pushed, when the state has no room left.
    bool PushFn() const;
    lua_State* FnState() const { return fnState; }
    // Keeps a copy of `text` for this thread and throws it as a C string,
    // which is how a failed callback leaves the stream.
    [[noreturn]] static void ThrowText(const char* text);

  private:
    int fnRef = -2;  // LUA_NOREF
    lua_State* fnState = nullptr;
};

}  // namespace VeskCore
