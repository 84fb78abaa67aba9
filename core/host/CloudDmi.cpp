#include "core/host/CloudDmi.h"

#include <strings.h>

namespace VeskCore {

CloudHint ClassifyDmi(const DmiFacts& facts) {
    CloudHint hint;
    hint.ec2 = facts.sysVendor.find("Amazon") != std::string::npos ||
               facts.biosVendor.find("Amazon") != std::string::npos ||
               facts.boardAssetTag.compare(0, 2, "i-") == 0 ||
               strncasecmp(facts.productUuid.c_str(), "ec2", 3) == 0;
    hint.vmware = facts.sysVendor.find("VMware") != std::string::npos;
    return hint;
}

}  // namespace VeskCore
