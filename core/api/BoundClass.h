// The binder's class of a native type in a Lua state, for glue functions that
// take bound objects as arguments.
#pragma once

#include <lua.hpp>

#include "slb/ClassInfo.h"
#include "slb/Manager.h"

namespace VeskCore {

// The class of T in L's registry; raises the binder's error when T has none.
template <class T>
const SLB::ClassInfo* ClassOrRaise(lua_State* L) {
    const SLB::Manager* manager = SLB::Manager::getInstance(L);
    const SLB::ClassInfo* cls =
        manager != nullptr ? manager->getClass(SLB::TypeID<T>::get()) : nullptr;
    if (cls == nullptr)
        luaL_error(L, "Unknown class %s", SLB::TypeID<T>::get().name());
    return cls;
}

}  // namespace VeskCore
