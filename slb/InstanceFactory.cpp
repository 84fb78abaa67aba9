#include "slb/InstanceFactory.h"

namespace SLB {

InstanceFactory::~InstanceFactory() = default;

}  // namespace SLB
