// The instance kind of a class: whether pushing by copy makes a real copy, and
// whether objects that a script constructed die with their userdata. The kinds
// themselves (Instance::Default, NoCopy, NoCopyNoDestroy) are in slb/Instance.h.
//
// Thread safety: immutable; used by many Lua states at once.
#pragma once

#include "slb/Allocator.h"
#include "slb/Export.h"

namespace SLB {

class SLB_EXPORT InstanceFactory : public Allocated {
  public:
    virtual ~InstanceFactory();

    // A copy of *object in memory from Malloc, owned by the caller (released by
    // destroy()), or null when this kind makes no copies. May throw what the
    // copy constructor throws, or std::bad_alloc.
    virtual void* copy(const void* object) const = 0;
    // Whether an object constructed from Lua is destroyed with its userdata.
    virtual bool destroysConstructed() const = 0;
    // Destroys and frees an object made by copy() or constructed from Lua.
    virtual void destroy(void* object) const = 0;
    // The kind's name, for documentation.
    virtual const char* kindName() const = 0;
};

}  // namespace SLB
