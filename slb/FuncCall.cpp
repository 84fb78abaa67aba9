#include "slb/FuncCall.h"

#include <lua.hpp>

#include "slb/ClassInfo.h"
#include "slb/Manager.h"
#include "slb/private/Boundary.h"
#include "slb/private/StackCheck.h"

namespace SLB {
namespace {

// A Lua C function behind the boundary: it may throw, it may raise.
class FC_Raw final : public FuncCall {
  public:
    explicit FC_Raw(lua_CFunction function)
        : FuncCall(Kind::Raw, nullptr, nullptr, {}), function_(function) {}
    int call(lua_State* L, const ClassInfo*) const override { return function_(L); }

  private:
    lua_CFunction function_;
};

// Every callable in Lua: upvalue 1 the FuncCall, upvalue 2 its class or null.
int callFunction(lua_State* L) {
    return Private::protect(L, [](lua_State* L) {
        const auto* function = static_cast<const FuncCall*>(lua_touserdata(L, lua_upvalueindex(1)));
        const auto* owner = static_cast<const ClassInfo*>(lua_touserdata(L, lua_upvalueindex(2)));
        return function->call(L, owner);
    });
}

}  // namespace

FuncCall::FuncCall(Kind kind, const TypeInfoWrapper* result, const TypeInfoWrapper* owner,
                   std::initializer_list<const TypeInfoWrapper*> arguments)
    : kind_(kind), result_(result), owner_(owner) {
    arguments_.reserve(arguments.size());
    for (const TypeInfoWrapper* type : arguments)
        arguments_.push_back(Argument{type, String()});
}

FuncCall::~FuncCall() = default;

FuncCall* FuncCall::create(lua_CFunction function) {
    return new FC_Raw(function);
}

bool FuncCall::setArgComment(std::size_t index, std::string_view text) {
    if (index >= arguments_.size())
        return false;
    arguments_[index].comment = toString(text);
    return true;
}

void FuncCall::pushImplementation(lua_State* L) const {
    SLB_STACK_CHECK(L, 1);
    // One closure per callable and state, so that a method reached through a
    // base and through a derived class is the same Lua value.
    lua_rawgetp(L, LUA_REGISTRYINDEX, this);  // +1
    if (!lua_isnil(L, -1))
        return;
    lua_pop(L, 1);
    // The class is looked up once per state here, not at every call. Missing
    // now, it is looked up at each call, which then raises "Unknown class".
    const Manager* manager = Manager::getInstance(L);
    const ClassInfo* owner = owner_ && manager ? manager->getClass(*owner_) : nullptr;
    lua_pushlightuserdata(L, const_cast<FuncCall*>(this));
    lua_pushlightuserdata(L, const_cast<ClassInfo*>(owner));
    lua_pushcclosure(L, &callFunction, 2);
    lua_pushvalue(L, -1);
    lua_rawsetp(L, LUA_REGISTRYINDEX, this);
}

}  // namespace SLB
