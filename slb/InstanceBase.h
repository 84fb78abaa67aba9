// What a script's handle on a native object holds: the object's address, its
// class, how it was pushed, and (when the handle owns the object) the factory
// that destroys it. Lives inside the Lua userdata; __gc calls release().
#pragma once

#include "slb/Export.h"

struct lua_State;

namespace SLB {

class ClassInfo;
class InstanceFactory;

class SLB_EXPORT InstanceBase {
  public:
    enum Type { I_Copy, I_Pointer, I_Const_Pointer };

    InstanceBase(Type type, const ClassInfo* cls, void* object)
        : object_(object), class_(cls), type_(type) {}
    InstanceBase(const InstanceBase&) = delete;
    InstanceBase& operator=(const InstanceBase&) = delete;

    Type getType() const { return type_; }
    const ClassInfo* getClass() const { return class_; }
    bool isConst() const { return type_ == I_Const_Pointer; }
    bool ownsObject() const { return owner_ != nullptr; }

    // The object; null for a const instance (use get_const_ptr) and for a copy
    // that the class's kind did not make.
    void* get_ptr() const { return isConst() ? nullptr : object_; }
    const void* get_const_ptr() const { return object_; }

    // Sets the object; with an owner, it is destroyed by owner->destroy() on release.
    void setObject(void* object, const InstanceFactory* owner);
    // Destroys an owned object; the instance holds null afterwards.
    void release();

    // The instance in stack slot index, or null if the slot holds none.
    // Userdata of other libraries are recognised by their metatable.
    static InstanceBase* fromStack(lua_State* L, int index);
    // Marks a metatable (on top of L) as that of binder instances.
    static void markMetatable(lua_State* L);

  private:
    void* object_;
    const ClassInfo* class_;
    const InstanceFactory* owner_ = nullptr;
    Type type_;
};

}  // namespace SLB
