#include "slb/InstanceBase.h"

#include <lua.hpp>

#include "slb/InstanceFactory.h"

namespace SLB {
namespace {

// Its address is the key, and the value, of the mark in instance metatables.
char s_instanceMark;

}  // namespace

void InstanceBase::setObject(void* object, const InstanceFactory* owner) {
    object_ = object;
    owner_ = object ? owner : nullptr;
}

void InstanceBase::release() {
    const InstanceFactory* owner = owner_;
    void* object = object_;
    // Cleared first: a finalised userdata may still be reached by a resurrecting script.
    owner_ = nullptr;
    object_ = nullptr;
    if (owner)
        owner->destroy(object);
}

InstanceBase* InstanceBase::fromStack(lua_State* L, int index) {
    if (lua_type(L, index) != LUA_TUSERDATA || !lua_getmetatable(L, index))
        return nullptr;
    lua_rawgetp(L, -1, &s_instanceMark);  // +1: the mark, or nil
    const bool marked = lua_touserdata(L, -1) == &s_instanceMark;
    lua_pop(L, 2);
    return marked ? static_cast<InstanceBase*>(lua_touserdata(L, index)) : nullptr;
}

void InstanceBase::markMetatable(lua_State* L) {
    lua_pushlightuserdata(L, &s_instanceMark);
    lua_rawsetp(L, -2, &s_instanceMark);
}

}  // namespace SLB
