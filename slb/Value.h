// A constant in the name tree. Each read pushes the value afresh, so a read of
// a constant whose type can't be pushed raises its error at every read.
#pragma once

#include <iosfwd>

#include "slb/Object.h"
#include "slb/TypeInfoWrapper.h"

namespace SLB {

class SLB_EXPORT Value : public Object {
  public:
    bool isCacheable() const override { return false; }
    virtual const TypeInfoWrapper& getValueType() const = 0;
    // The value as text for documentation; "?" when it has no text form.
    virtual void writeValue(std::ostream& out) const = 0;
};

}  // namespace SLB
