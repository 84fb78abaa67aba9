// A bound class: its Lua name, documentation, constructor, instance kind, base
// classes and member table (the Table it is).
//
// In a Lua state the class is a table (made at first use) whose members are
// read as for any table, also through the bases, and which is callable when the
// class has a constructor. Instances are userdata holding an InstanceBase; their
// metatable sends reads to the class table.
//
// Thread safety: configured during registration; afterwards the const members
// are used by many Lua states on many threads at once.
#pragma once

#include "slb/InstanceBase.h"
#include "slb/Table.h"
#include "slb/TypeInfoWrapper.h"

namespace SLB {

class FuncCall;
class InstanceFactory;
class Manager;

class SLB_EXPORT ClassInfo : public Table {
  public:
    // Converts a pointer to this class into a pointer to one of its bases.
    using BaseConversion = void* (*)(void*);
    struct Base {
        ClassInfo* info;
        BaseConversion toBase;
    };

    // Made by Manager::getOrCreateClass, which owns it.
    ClassInfo(Manager* manager, const TypeInfoWrapper& type);
    ~ClassInfo() override;

    const TypeInfoWrapper& getTypeID() const { return type_; }
    // The name given to setName ("ns::Name"), or empty.
    const String& getName() const { return name_; }
    // Names the class and places it in the manager's name tree, with "::"
    // splitting. A plain table already at that place is merged into the class,
    // so "a" may be registered after "a::B".
    void setName(std::string_view name);

    // Takes ownership; null removes the constructor.
    void setConstructor(FuncCall* constructor);
    const FuncCall* getConstructor() const { return constructor_; }
    // Takes ownership; fixes the instance kind.
    void setInstanceFactory(InstanceFactory* factory);
    const InstanceFactory* getInstanceFactory() const { return factory_; }

    // Adds base with the conversion of pointers to it. Listing a base twice
    // keeps the first. Throws std::logic_error("Circular reference between
    // ClassInfo classes") if base is this class or derives from it.
    void inheritsFrom(ClassInfo* base, BaseConversion toBase);
    const Vector<Base>& getBases() const { return bases_; }
    // Whether ancestor is this class or reachable through the bases.
    bool isSubclassOf(const ClassInfo* ancestor) const;
    // object (of this class) as a pointer to target; null if target is no ancestor.
    void* convertTo(const ClassInfo* target, void* object) const;

    // Push a userdata instance (+1); a null object pushes nil. push_ptr and
    // push_const_ptr never own the object. push_copy owns its copy, or holds
    // null when the kind makes no copies; it may throw what copying throws.
    void push_ptr(lua_State* L, void* object) const;
    void push_const_ptr(lua_State* L, const void* object) const;
    void push_copy(lua_State* L, const void* object) const;
    // Pushes an empty instance (+1) that the caller fills with setObject; an
    // empty instance can be collected safely, so it is made before the object.
    InstanceBase* pushInstance(lua_State* L, InstanceBase::Type type) const;

    // The object in stack slot index as a pointer to this class, converted
    // from a derived class; null if the slot holds no instance of this class
    // or of a class derived from it. get_ptr is also null for const instances.
    void* get_ptr(lua_State* L, int index) const;
    const void* get_const_ptr(lua_State* L, int index) const;

    const Object* find(std::string_view key) const override;

  protected:
    void fillMetatable(lua_State* L) const override;

  private:
    const Base* stepToward(const ClassInfo* target) const;
    void pushInstanceMetatable(lua_State* L) const;

    Manager* manager_;
    TypeInfoWrapper type_;
    String name_;
    FuncCall* constructor_ = nullptr;
    InstanceFactory* factory_ = nullptr;
    Vector<InstanceFactory*> retiredFactories_;
    Vector<Base> bases_;
    // Its address keys the instance metatable of this class in each registry.
    char instanceMetatableKey_ = 0;
};

}  // namespace SLB
