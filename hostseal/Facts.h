// The machine facts a blob is sealed to, in their fixed order. A fact that
// cannot be read, or reads as empty, is "unreadable" and takes no part.
#pragma once

#include <sys/types.h>

#include <array>
#include <string>
#include <vector>

#include "hostseal/Secret.h"

namespace hostseal {

constexpr int kFactCount = 5;
enum Fact : int { kMachineId, kProductUuid, kRootFsUuid, kHardwareAddress, kHostName };

// Names for traces; a fact's value never goes there.
const char* FactName(int fact);

struct Facts {
    std::array<SecretBytes, kFactCount> values;
    bool overridden = false;  // taken from the environment, not the machine

    // Bit i is set when fact i is readable.
    unsigned Readable() const;
};

// The facts of VESK_HOSTSEAL_FACTS when it is set, else the machine's.
Facts ReadFacts();

// The pieces of ReadFacts, with their paths open so that tests can give them
// a made-up machine.
namespace detail {

constexpr const char* kOverrideVariable = "VESK_HOSTSEAL_FACTS";

// Five fields separated by ';', an empty field being an unreadable fact.
// Missing trailing fields are unreadable; more than five fields make the whole
// text unusable, so that nothing gets sealed to a misread list.
Facts ParseOverride(const char* text);

SecretBytes Trimmed(const void* bytes, size_t size);
SecretBytes ReadFactFile(const std::string& path);

SecretBytes MachineId(const std::string& path);
SecretBytes ProductUuid(const std::string& path);
SecretBytes HardwareAddress(const std::string& netClassDir);
SecretBytes HostName();

// The mount source of the file system mounted on "/" with the given device
// numbers, from the text of /proc/self/mountinfo; empty when there is none.
std::string RootMountSource(const std::string& mountinfo, unsigned major, unsigned minor);

// The entry of a by-uuid directory whose link leads to one of the devices.
SecretBytes UuidFromLinks(const std::string& byUuidDir, const std::vector<dev_t>& devices);

// The UUID of an ext2/3/4 file system from its superblock (the 1024 bytes at
// offset 1024 of the device), spelled as udev spells it.
SecretBytes ExtSuperblockUuid(const unsigned char* superblock, size_t size);

SecretBytes RootFsUuid();

}  // namespace detail
}  // namespace hostseal
