// The registration front: a class and its members in one chained statement.
//
//   SLB::Class<CPoint, SLB::Instance::Default>("geo::Point", manager)
//       .comment("A point")
//       .inherits<CShape>()
//       .constructor<int, int>().param("x").param("y")
//       .set("Move", &CPoint::Move).comment("Moves the point").param("dx").param("dy")
//       .set("Origin", &CPoint::Origin)            // a static function
//       .set("Raw", &CPoint_Raw)                    // a Lua C function
//       .rawSet("AXIS::X", new SLB::CopyValue<int>(0));
//
// comment() documents the class, or the member set last. param() comments the
// next parameter of the callable set last; the count restarts at every set.
// A param() that can't be placed is reported on std::cerr and registration
// goes on. Registration happens on one thread, before Lua states use the manager.
#pragma once

#include <string_view>

#include "slb/ClassConversor.h"
#include "slb/ClassInfo.h"
#include "slb/FuncCall.h"
#include "slb/Instance.h"
#include "slb/Manager.h"

namespace SLB {
namespace Private {

// What Class<T, Kind> does that does not depend on T.
class SLB_EXPORT ClassRegistrar {
  public:
    ClassRegistrar(Manager* manager, ClassInfo* cls, std::string_view name,
                   InstanceFactory* factory);

    void comment(std::string_view text);
    void param(std::string_view text);
    // Takes ownership of member; it becomes the object that comment/param address.
    void setMember(std::string_view name, Object* member);
    void setConstructor(FuncCall* constructor);
    // Throws std::logic_error on a circular reference.
    void inherits(const TypeInfoWrapper& base, ClassInfo::BaseConversion toBase);

    Manager* manager() const { return manager_; }
    ClassInfo* info() const { return class_; }

  private:
    Manager* manager_;
    ClassInfo* class_;
    Object* last_ = nullptr;
    std::size_t paramIndex_ = 0;
};

}  // namespace Private

template <class T, class Kind = Instance::Default>
class Class {
  public:
    // Finds or creates the class of T, names it and fixes its instance kind.
    explicit Class(std::string_view name, Manager* manager = Manager::defaultManager())
        : registrar_(manager, manager->getOrCreateClass(TypeID<T>::get()), name,
                     new typename Kind::template Factory<T>()) {}

    Class& comment(std::string_view text) {
        registrar_.comment(text);
        return *this;
    }

    // Adds B as a base. List every ancestor a script may pass this class as.
    template <class B>
    Class& inherits() {
        registrar_.inherits(TypeID<B>::get(), &Private::convertToBase<T, B>);
        return *this;
    }

    template <class... A>
    Class& constructor() {
        registrar_.setConstructor(FuncCall::defaultClassConstructor<T, A...>());
        return *this;
    }
    // A constructor that only the class's own factory can fulfil.
    template <class... A>
    Class& constructor(T* (*factory)(A...)) {
        registrar_.setConstructor(FuncCall::factoryConstructor(factory));
        return *this;
    }

    // A method (const or not), a static function or a Lua C function.
    template <class F>
    Class& set(std::string_view name, F member) {
        registrar_.setMember(name, FuncCall::create(member));
        return *this;
    }
    // A callable made elsewhere; takes ownership.
    Class& set(std::string_view name, FuncCall* member) {
        registrar_.setMember(name, member);
        return *this;
    }

    // Any object in the member table ("::" makes nested tables); takes ownership.
    Class& rawSet(std::string_view name, Object* object) {
        registrar_.setMember(name, object);
        return *this;
    }

    Class& param(std::string_view text) {
        registrar_.param(text);
        return *this;
    }

    ClassInfo* info() const { return registrar_.info(); }

  private:
    Private::ClassRegistrar registrar_;
};

}  // namespace SLB
