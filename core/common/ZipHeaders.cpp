#include "core/common/ZipHeaders.h"

#include <algorithm>

namespace VeskCore {
namespace {

constexpr uint32_t kEndSignature = 0x06054b50;
constexpr uint32_t kCentralSignature = 0x02014b50;
constexpr size_t kEndSize = 22;
constexpr size_t kCentralSize = 46;

uint16_t Le16(const std::string& bytes, size_t at) {
    return static_cast<uint16_t>(static_cast<unsigned char>(bytes[at]) |
                                 static_cast<unsigned char>(bytes[at + 1]) << 8);
}

uint32_t Le32(const std::string& bytes, size_t at) {
    return static_cast<uint32_t>(Le16(bytes, at)) | static_cast<uint32_t>(Le16(bytes, at + 2))
                                                        << 16;
}

// Parses the central record at `at`; `at` moves past it.
bool ParseCentralRecord(const std::string& bytes, size_t& at, ZipCentralEntry& entry) {
    if (bytes.size() - at < kCentralSize || Le32(bytes, at) != kCentralSignature)
        return false;
    const size_t variable =
        static_cast<size_t>(Le16(bytes, at + 28)) + Le16(bytes, at + 30) + Le16(bytes, at + 32);
    if (bytes.size() - at - kCentralSize < variable)
        return false;
    entry.madeBy = Le16(bytes, at + 4);
    entry.method = Le16(bytes, at + 10);
    entry.crc = Le32(bytes, at + 16);
    entry.compressedSize = Le32(bytes, at + 20);
    entry.size = Le32(bytes, at + 24);
    entry.externalAttributes = Le32(bytes, at + 38);
    entry.name = bytes.substr(at + kCentralSize, Le16(bytes, at + 28));
    const bool zip64 = entry.compressedSize == 0xFFFFFFFF || entry.size == 0xFFFFFFFF ||
                       Le32(bytes, at + 42) == 0xFFFFFFFF;
    at += kCentralSize + variable;
    return !zip64;
}

}  // namespace

bool FindZipEndRecord(const std::string& tail, ZipEndRecord& end) {
    for (size_t at = tail.size() >= kEndSize ? tail.size() - kEndSize + 1 : 0; at-- > 0;) {
        if (Le32(tail, at) != kEndSignature || at + kEndSize + Le16(tail, at + 20) > tail.size())
            continue;
        const uint16_t disk = Le16(tail, at + 4);
        const uint16_t directoryDisk = Le16(tail, at + 6);
        const uint16_t here = Le16(tail, at + 8);
        const uint16_t total = Le16(tail, at + 10);
        if (disk != 0 || directoryDisk != 0 || here != total || total == 0xFFFF ||
            Le32(tail, at + 12) == 0xFFFFFFFF || Le32(tail, at + 16) == 0xFFFFFFFF)
            return false;
        end.position = at;
        end.entries = total;
        end.directorySize = Le32(tail, at + 12);
        return true;
    }
    return false;
}

bool ParseZipCentralDirectory(const std::string& bytes, uint64_t count,
                              std::vector<ZipCentralEntry>& entries) {
    entries.clear();
    size_t at = 0;
    for (uint64_t i = 0; i < count; ++i) {
        ZipCentralEntry entry;
        if (!ParseCentralRecord(bytes, at, entry))
            return false;
        entries.push_back(std::move(entry));
    }
    return at == bytes.size();
}

std::string ZipInternalName(const std::string& name) {
    std::string internal = name;
    if (!internal.empty() && internal.back() == '/')
        internal.pop_back();
    while (!internal.empty() && internal[0] == '/')
        internal.erase(0, 1);
    while (internal.compare(0, 2, "./") == 0)
        internal.erase(0, 2);
    return internal == "." || internal == ".." ? std::string() : internal;
}

bool IsContainedEntryName(const std::string& name) {
    if (name.empty() || name[0] == '/' || name.find('\0') != std::string::npos)
        return false;
    for (size_t start = 0; start <= name.size();) {
        const size_t slash = std::min(name.find('/', start), name.size());
        if (name.compare(start, slash - start, "..") == 0)
            return false;
        start = slash + 1;
    }
    return true;
}

bool IsUnpackableCatalog(const std::vector<ZipCentralEntry>& entries, uint64_t entryLimit,
                         uint64_t totalLimit) {
    uint64_t total = 0;
    for (const ZipCentralEntry& entry : entries) {
        if (!IsContainedEntryName(entry.name) || entry.IsLink() || entry.size > entryLimit)
            return false;
        total += entry.size;
        if (total > totalLimit)
            return false;
    }
    return true;
}

}  // namespace VeskCore
