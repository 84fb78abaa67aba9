// Base of everything the binder's name tree can hold: tables, classes,
// callables and constants. Each object carries a documentation text.
//
// Ownership: objects are reference counted. Placing an object in a table (or
// in a manager) takes a reference; the last release deletes it. An object that
// is never placed must be deleted by its creator.
//
// Thread safety: objects are built and linked during registration, on one
// thread. Afterwards every const member may be used from many threads at once.
#pragma once

#include <string_view>

#include "slb/Allocator.h"
#include "slb/Export.h"

struct lua_State;

namespace SLB {

class SLB_EXPORT Object : public Allocated {
  public:
    Object(const Object&) = delete;
    Object& operator=(const Object&) = delete;
    virtual ~Object();

    void setInfo(std::string_view text);
    const String& getInfo() const { return info_; }

    // Pushes the Lua value of the object (+1).
    // REQUIRES: the manager that owns the object is registered in L.
    // Binder errors are thrown as C++ exceptions, so this runs inside a bound
    // call; pushing a table or class from plain native code is always safe.
    void push(lua_State* L) const { pushImplementation(L); }

    // Whether a Lua table that has read this object may keep the value instead
    // of asking again. Constants are pushed afresh on every read.
    virtual bool isCacheable() const { return true; }

    void ref() { ++refCount_; }
    // Drops one reference; deletes the object when it was the last one.
    void unref();

  protected:
    Object() = default;
    virtual void pushImplementation(lua_State* L) const = 0;

  private:
    String info_;
    unsigned refCount_ = 0;
};

}  // namespace SLB
