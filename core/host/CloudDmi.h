// What the machine's own firmware tables (DMI) say about where it runs, read
// before any cloud query: an agent off-cloud must never wait on an address
// that nobody answers, nor start a tool that is not there.
//
// Reading (Linux: the files of /sys/class/dmi/id) is kept apart from the
// decision, which tests feed with made-up facts.
//
// Thread safety: every function may be called from any thread.
#pragma once

#include <string>

namespace VeskCore {

// The DMI strings that decide, each its first line without trailing blanks;
// empty where unreadable (product_uuid is readable by root only, and a
// refusal is no error).
struct DmiFacts {
    std::string sysVendor;
    std::string biosVendor;
    std::string productName;
    std::string boardAssetTag;
    std::string productUuid;
};

// Which providers are worth asking; either, both or neither.
struct CloudHint {
    bool ec2 = false;
    bool vmware = false;
};

// EC2: a vendor containing "Amazon", an asset tag starting with "i-" (the
// instance ID on Nitro machines), or a UUID starting with "ec2" in any case
// (Xen machines). VMware: a system vendor containing "VMware".
CloudHint ClassifyDmi(const DmiFacts& facts);

// Reads the facts from the files sys_vendor, bios_vendor, product_name,
// board_asset_tag and product_uuid in `folder`, at most 256 bytes each;
// never blocks on what is not a regular file.
DmiFacts ReadDmiFacts(const std::string& folder);

}  // namespace VeskCore
