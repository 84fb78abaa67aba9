#include <lua.hpp>

#include "slb/ClassInfo.h"
#include "slb/FuncCall.h"
#include "slb/InstanceFactory.h"
#include "slb/Manager.h"
#include "slb/private/Boundary.h"
#include "slb/private/Type.h"

namespace SLB::Private {

const ClassInfo* findClass(lua_State* L, const TypeInfoWrapper& type) {
    const Manager* manager = Manager::getInstance(L);
    return manager ? manager->getClass(type) : nullptr;
}

void checkArgumentCount(int given, std::size_t expected) {
    if (given != static_cast<int>(expected))
        raiseError("Error number of arguments (given %d -> expected %d)", given,
                   static_cast<int>(expected));
}

void adoptConstructed(const ClassInfo& cls, InstanceBase& instance, void* object) {
    const InstanceFactory* factory = cls.getInstanceFactory();
    instance.setObject(object, factory && factory->destroysConstructed() ? factory : nullptr);
}

}  // namespace SLB::Private
