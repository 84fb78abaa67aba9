// The records of a zip archive's end and central directory, read from bytes
// handed in (the I/O is Unzip's), and the rules that decide whether an
// archive may be unpacked at all. wx's zip stream tidies names as it reads
// them ("/abs" becomes "abs"), so whether an entry would leave its
// destination can only be judged on the names as stored.
//
// ZIP64 archives and entries are not read: every size they exist for is
// beyond the unpacking limits anyway.
//
// Thread safety: every function may be called from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace VeskCore {

struct ZipEndRecord {
    uint64_t position = 0;  // of the record, within the bytes searched
    uint64_t entries = 0;
    uint64_t directorySize = 0;
};

struct ZipCentralEntry {
    std::string name;  // bytes as stored
    uint16_t madeBy = 0;
    uint16_t method = 0;
    uint32_t crc = 0;
    uint64_t compressedSize = 0;
    uint64_t size = 0;
    uint32_t externalAttributes = 0;

    // Unix file type bits in the high half of the external attributes.
    bool IsLink() const { return (externalAttributes >> 16 & 0170000) == 0120000; }
    bool IsDirectory() const { return !name.empty() && name.back() == '/'; }
};

// The largest central directory read: 65535 entries with long names.
constexpr uint64_t kZipMaxDirectory = 64ULL << 20;

// The searchable tail of an archive: the end record and its longest comment.
constexpr uint64_t kZipEndSearch = 22 + 65535;

// Finds the last end record in `tail` (the archive's last bytes) whose
// comment fits. False when there is none, when it spans disks, or when it is
// a ZIP64 placeholder.
bool FindZipEndRecord(const std::string& tail, ZipEndRecord& end);

// Parses exactly `count` central records filling `bytes`. False on a bad
// signature, a record cut short, bytes left over, or a ZIP64 placeholder.
bool ParseZipCentralDirectory(const std::string& bytes, uint64_t count,
                              std::vector<ZipCentralEntry>& entries);

// `name` as wx's zip stream gives it (GetInternalName): without a trailing
// "/", leading "/" and "./" taken away.
std::string ZipInternalName(const std::string& name);

// Whether `name` stays inside the folder it is unpacked into: not empty,
// relative, no ".." component, no NUL. A trailing "/" (a directory) is fine.
bool IsContainedEntryName(const std::string& name);

// Whether every entry has a contained name, none is a symbolic link, none
// claims more than `entryLimit` bytes, and all together no more than
// `totalLimit`.
bool IsUnpackableCatalog(const std::vector<ZipCentralEntry>& entries, uint64_t entryLimit,
                         uint64_t totalLimit);

}  // namespace VeskCore
