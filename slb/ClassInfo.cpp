#include "slb/ClassInfo.h"

#include <lua.hpp>
#include <new>
#include <stdexcept>

#include "slb/FuncCall.h"
#include "slb/InstanceFactory.h"
#include "slb/Manager.h"
#include "slb/private/Boundary.h"
#include "slb/private/StackCheck.h"

namespace SLB {
namespace {

const ClassInfo* upvalueClass(lua_State* L) {
    return static_cast<const ClassInfo*>(lua_touserdata(L, lua_upvalueindex(1)));
}

// __call(classTable, ...) of a class; upvalue 1 is the class.
int callClass(lua_State* L) {
    return Private::protect(L, [](lua_State* L) {
        const ClassInfo* cls = upvalueClass(L);
        lua_remove(L, 1);  // the class table: the arguments now start at 1
        const FuncCall* constructor = cls->getConstructor();
        if (!constructor)
            Private::raiseError("Class %s has no constructor", cls->getTypeID().name());
        const TypeInfoWrapper* owner = constructor->getOwnerType();
        return constructor->call(L, owner && *owner == cls->getTypeID() ? cls : nullptr);
    });
}

// __gc of every instance. A script holding the metatable through the debug
// library may call it with anything, or twice: only an instance is released,
// and a released instance holds nothing more to release.
int collectInstance(lua_State* L) {
    return Private::protect(L, [](lua_State* L) {
        if (InstanceBase* instance = InstanceBase::fromStack(L, 1))
            instance->release();
        return 0;
    });
}

}  // namespace

ClassInfo::ClassInfo(Manager* manager, const TypeInfoWrapper& type)
    : manager_(manager), type_(type) {}

ClassInfo::~ClassInfo() {
    if (constructor_)
        constructor_->unref();
    delete factory_;
    for (InstanceFactory* retired : retiredFactories_)
        delete retired;
}

void ClassInfo::setName(std::string_view name) {
    name_ = toString(name);
    Object* existing = manager_->get(name);
    auto* table = dynamic_cast<Table*>(existing);
    if (table && existing != this && !dynamic_cast<ClassInfo*>(existing))
        adoptElements(*table);
    manager_->set(name, this);
}

void ClassInfo::setConstructor(FuncCall* constructor) {
    if (constructor)
        constructor->ref();
    if (constructor_)
        constructor_->unref();
    constructor_ = constructor;
}

void ClassInfo::setInstanceFactory(InstanceFactory* factory) {
    if (factory == factory_)
        return;
    // Instances made before may still name the old factory as their owner.
    if (factory_)
        retiredFactories_.push_back(factory_);
    factory_ = factory;
}

void ClassInfo::inheritsFrom(ClassInfo* base, BaseConversion toBase) {
    if (base->isSubclassOf(this))
        throw std::logic_error("Circular reference between ClassInfo classes");
    for (const Base& listed : bases_) {
        if (listed.info == base)
            return;
    }
    bases_.push_back(Base{base, toBase});
}

bool ClassInfo::isSubclassOf(const ClassInfo* ancestor) const {
    if (this == ancestor)
        return true;
    for (const Base& base : bases_) {
        if (base.info->isSubclassOf(ancestor))
            return true;
    }
    return false;
}

const ClassInfo::Base* ClassInfo::stepToward(const ClassInfo* target) const {
    // A directly listed ancestor converts in one step; prefer it.
    for (const Base& base : bases_) {
        if (base.info == target)
            return &base;
    }
    for (const Base& base : bases_) {
        if (base.info->isSubclassOf(target))
            return &base;
    }
    return nullptr;
}

void* ClassInfo::convertTo(const ClassInfo* target, void* object) const {
    const ClassInfo* current = this;
    while (object && current != target) {
        const Base* step = current->stepToward(target);
        if (!step)
            return nullptr;
        object = step->toBase(object);
        current = step->info;
    }
    return object;
}

void ClassInfo::push_ptr(lua_State* L, void* object) const {
    if (!object) {
        lua_pushnil(L);
        return;
    }
    pushInstance(L, InstanceBase::I_Pointer)->setObject(object, nullptr);
}

void ClassInfo::push_const_ptr(lua_State* L, const void* object) const {
    if (!object) {
        lua_pushnil(L);
        return;
    }
    pushInstance(L, InstanceBase::I_Const_Pointer)->setObject(const_cast<void*>(object), nullptr);
}

void ClassInfo::push_copy(lua_State* L, const void* object) const {
    if (!object) {
        lua_pushnil(L);
        return;
    }
    InstanceBase* instance = pushInstance(L, InstanceBase::I_Copy);
    if (factory_)
        instance->setObject(factory_->copy(object), factory_);
}

InstanceBase* ClassInfo::pushInstance(lua_State* L, InstanceBase::Type type) const {
    SLB_STACK_CHECK(L, 1);
    void* memory = lua_newuserdata(L, sizeof(InstanceBase));  // +1
    auto* instance = new (memory) InstanceBase(type, this, nullptr);
    pushInstanceMetatable(L);  // +1
    lua_setmetatable(L, -2);
    return instance;
}

void ClassInfo::pushInstanceMetatable(lua_State* L) const {
    SLB_STACK_CHECK(L, 1);
    lua_rawgetp(L, LUA_REGISTRYINDEX, &instanceMetatableKey_);  // +1
    if (!lua_isnil(L, -1))
        return;
    lua_pop(L, 1);
    lua_createtable(L, 0, 4);
    InstanceBase::markMetatable(L);
    // getmetatable(instance) must not hand scripts the __gc of native objects.
    lua_pushboolean(L, 0);
    lua_setfield(L, -2, "__metatable");
    push(L);  // +1: the class table answers reads of members
    lua_setfield(L, -2, "__index");
    lua_pushcfunction(L, &collectInstance);
    lua_setfield(L, -2, "__gc");
    lua_pushvalue(L, -1);
    lua_rawsetp(L, LUA_REGISTRYINDEX, &instanceMetatableKey_);
}

void* ClassInfo::get_ptr(lua_State* L, int index) const {
    const InstanceBase* instance = InstanceBase::fromStack(L, index);
    if (!instance)
        return nullptr;
    return instance->getClass()->convertTo(this, instance->get_ptr());
}

const void* ClassInfo::get_const_ptr(lua_State* L, int index) const {
    const InstanceBase* instance = InstanceBase::fromStack(L, index);
    if (!instance)
        return nullptr;
    return instance->getClass()->convertTo(this, const_cast<void*>(instance->get_const_ptr()));
}

const Object* ClassInfo::find(std::string_view key) const {
    if (const Object* own = getLocal(key))
        return own;
    for (const Base& base : bases_) {
        if (const Object* inherited = base.info->find(key))
            return inherited;
    }
    return nullptr;
}

void ClassInfo::fillMetatable(lua_State* L) const {
    Table::fillMetatable(L);
    lua_pushlightuserdata(L, const_cast<ClassInfo*>(this));
    lua_pushcclosure(L, &callClass, 1);
    lua_setfield(L, -2, "__call");
}

}  // namespace SLB
