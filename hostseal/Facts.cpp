#include "hostseal/Facts.h"

#include <dirent.h>
#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace hostseal {

namespace {

// Facts are short; anything longer is not the file we expect.
constexpr size_t kMaxFactFile = 4096;
// /proc/self/mountinfo of a busy container host runs to a few hundred KiB.
constexpr size_t kMaxMountInfo = 16 << 20;

bool IsSpace(unsigned char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

bool IsHex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// Reads at most `limit` bytes of a file into `buffer`; -1 when the file cannot
// be read or holds more.
ssize_t ReadSmallFile(const std::string& path, unsigned char* buffer, size_t limit) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return -1;
    size_t used = 0;
    for (;;) {
        // One byte of room past the limit tells an oversized file apart.
        unsigned char probe = 0;
        unsigned char* into = used < limit ? buffer + used : &probe;
        const size_t room = used < limit ? limit - used : 1;
        const ssize_t got = read(fd, into, room);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0 || (got > 0 && used >= limit)) {
            close(fd);
            return -1;
        }
        if (got == 0)
            break;
        used += static_cast<size_t>(got);
    }
    close(fd);
    return static_cast<ssize_t>(used);
}

std::string ReadText(const std::string& path, size_t limit) {
    std::string text;
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return text;
    char chunk[8192];
    for (;;) {
        const ssize_t got = read(fd, chunk, sizeof chunk);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        text.append(chunk, static_cast<size_t>(got));
        if (text.size() > limit) {
            text.clear();
            break;
        }
    }
    close(fd);
    return text;
}

std::vector<std::string> SortedEntries(const std::string& dir) {
    std::vector<std::string> names;
    DIR* stream = opendir(dir.c_str());
    if (stream == nullptr)
        return names;
    while (const dirent* entry = readdir(stream)) {
        if (entry->d_name[0] != '.')
            names.emplace_back(entry->d_name);
    }
    closedir(stream);
    std::sort(names.begin(), names.end());
    return names;
}

bool AllZeroAddress(const SecretBytes& address) {
    for (size_t i = 0; i < address.size(); ++i) {
        const unsigned char c = address.data()[i];
        if (c != '0' && c != ':')
            return false;
    }
    return true;
}

// The kernel's addr_assign_type: 0 is the address the hardware came with.
bool PermanentAddress(const std::string& interfaceDir) {
    const SecretBytes type = detail::ReadFactFile(interfaceDir + "/addr_assign_type");
    return type.size() == 1 && type.data()[0] == '0';
}

bool Contains(const std::vector<dev_t>& devices, dev_t device) {
    return std::find(devices.begin(), devices.end(), device) != devices.end();
}

// Mount sources in mountinfo escape space, tab, newline and backslash as \ooo.
std::string Unescape(const std::string& field) {
    std::string out;
    for (size_t i = 0; i < field.size(); ++i) {
        if (field[i] == '\\' && i + 3 < field.size() && field[i + 1] >= '0' &&
            field[i + 1] <= '3' && field[i + 2] >= '0' && field[i + 2] <= '7' &&
            field[i + 3] >= '0' && field[i + 3] <= '7') {
            out += static_cast<char>((field[i + 1] - '0') * 64 + (field[i + 2] - '0') * 8 +
                                     (field[i + 3] - '0'));
            i += 3;
        } else {
            out += field[i];
        }
    }
    return out;
}

std::vector<std::string> Fields(const std::string& line) {
    std::vector<std::string> fields;
    size_t start = 0;
    while (start < line.size()) {
        const size_t end = line.find(' ', start);
        const size_t stop = end == std::string::npos ? line.size() : end;
        if (stop > start)
            fields.push_back(line.substr(start, stop - start));
        start = stop + 1;
    }
    return fields;
}

// The device node of a block device: the mount source when it is that node,
// else the name the kernel gives it under /dev.
std::string DeviceNode(dev_t device, const std::string& source) {
    struct stat node;
    if (!source.empty() && source[0] == '/' && stat(source.c_str(), &node) == 0 &&
        S_ISBLK(node.st_mode) && node.st_rdev == device)
        return source;
    char uevent[64];
    snprintf(uevent, sizeof uevent, "/sys/dev/block/%u:%u/uevent", major(device), minor(device));
    const std::string text = ReadText(uevent, 64 << 10);
    const size_t at = text.find("DEVNAME=");
    if (at == std::string::npos || (at != 0 && text[at - 1] != '\n'))
        return {};
    const size_t end = text.find('\n', at);
    const std::string path =
        "/dev/" + text.substr(at + 8, end == std::string::npos ? std::string::npos : end - at - 8);
    if (path.find("..") != std::string::npos || stat(path.c_str(), &node) != 0 ||
        !S_ISBLK(node.st_mode) || node.st_rdev != device)
        return {};
    return path;
}

SecretBytes SuperblockUuid(const std::string& node) {
    const int fd = open(node.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY);
    if (fd < 0)
        return {};
    unsigned char superblock[1024];
    ssize_t got;
    do {
        got = pread(fd, superblock, sizeof superblock, 1024);
    } while (got < 0 && errno == EINTR);
    close(fd);
    SecretBytes uuid;
    if (got == static_cast<ssize_t>(sizeof superblock))
        uuid = detail::ExtSuperblockUuid(superblock, sizeof superblock);
    OPENSSL_cleanse(superblock, sizeof superblock);
    return uuid;
}

}  // namespace

const char* FactName(int fact) {
    static const char* const names[kFactCount] = {"machine-id", "product-uuid", "root-fs-uuid",
                                                  "hardware-address", "host-name"};
    return fact >= 0 && fact < kFactCount ? names[fact] : "unknown";
}

unsigned Facts::Readable() const {
    unsigned mask = 0;
    for (int i = 0; i < kFactCount; ++i)
        if (!values[static_cast<size_t>(i)].empty())
            mask |= 1u << i;
    return mask;
}

Facts ReadFacts() {
    // secure_getenv: a set-user-ID host must not take its facts from the
    // user who started it.
    if (const char* text = secure_getenv(detail::kOverrideVariable))
        return detail::ParseOverride(text);
    Facts facts;
    facts.values[kMachineId] = detail::MachineId("/etc/machine-id");
    facts.values[kProductUuid] = detail::ProductUuid("/sys/class/dmi/id/product_uuid");
    facts.values[kRootFsUuid] = detail::RootFsUuid();
    facts.values[kHardwareAddress] = detail::HardwareAddress("/sys/class/net");
    facts.values[kHostName] = detail::HostName();
    return facts;
}

namespace detail {

Facts ParseOverride(const char* text) {
    Facts facts;
    facts.overridden = true;
    const char* field = text;
    for (int i = 0;; ++i) {
        const char* end = strchr(field, ';');
        const size_t size = end != nullptr ? static_cast<size_t>(end - field) : strlen(field);
        if (i == kFactCount) {
            // A sixth field: the list is not what its writer meant.
            for (SecretBytes& value : facts.values)
                value.Clear();
            return facts;
        }
        facts.values[static_cast<size_t>(i)] = Trimmed(field, size);
        if (end == nullptr)
            return facts;
        field = end + 1;
    }
}

SecretBytes Trimmed(const void* bytes, size_t size) {
    const unsigned char* begin = static_cast<const unsigned char*>(bytes);
    const unsigned char* end = begin + size;
    while (begin < end && IsSpace(*begin))
        ++begin;
    while (end > begin && IsSpace(end[-1]))
        --end;
    return SecretBytes(begin, static_cast<size_t>(end - begin));
}

SecretBytes ReadFactFile(const std::string& path) {
    unsigned char buffer[kMaxFactFile];
    const ssize_t size = ReadSmallFile(path, buffer, sizeof buffer);
    SecretBytes value;
    if (size > 0)
        value = Trimmed(buffer, static_cast<size_t>(size));
    OPENSSL_cleanse(buffer, sizeof buffer);
    return value;
}

SecretBytes MachineId(const std::string& path) {
    SecretBytes id = ReadFactFile(path);
    // systemd writes this word while the real ID is not yet committed to disk;
    // it is the same on every machine that shows it.
    static const char kUninitialized[] = "uninitialized";
    if (id.size() == sizeof kUninitialized - 1 && memcmp(id.data(), kUninitialized, id.size()) == 0)
        id.Clear();
    return id;
}

SecretBytes ProductUuid(const std::string& path) {
    SecretBytes uuid = ReadFactFile(path);
    // Firmware that has no UUID to give fills in text ("Not Settable"), all
    // zeros, all ones, or a well-known counting pattern: the same on every
    // such machine, so no better than nothing.
    bool hex = true;
    bool uniform = true;
    char first = 0;
    for (size_t i = 0; i < uuid.size(); ++i) {
        const char c = static_cast<char>(uuid.data()[i]);
        if (c == '-')
            continue;
        hex = hex && IsHex(c);
        if (first == 0)
            first = c;
        uniform = uniform && c == first;
    }
    static const char kCounting[] = "03000200-0400-0500-0006-000700080009";
    const bool counting =
        uuid.size() == sizeof kCounting - 1 && memcmp(uuid.data(), kCounting, uuid.size()) == 0;
    if (!hex || uniform || counting)
        uuid.Clear();
    return uuid;
}

SecretBytes HardwareAddress(const std::string& netClassDir) {
    // Rank 0: a physical device (it has a "device" link) with the address it
    // came with; 1: a physical device whose address was set or stolen (a bond
    // member, a MAC set by hand); 2: a virtual device with a permanent address.
    // Virtual devices with random addresses (bridges, veth, tun, ifb) get a new
    // one on every boot and are never used.
    SecretBytes best;
    int bestRank = 3;
    for (const std::string& name : SortedEntries(netClassDir)) {
        if (name == "lo")
            continue;
        const std::string dir = netClassDir + "/" + name;
        SecretBytes address = ReadFactFile(dir + "/address");
        if (address.empty() || AllZeroAddress(address))
            continue;
        struct stat link;
        const bool physical = lstat((dir + "/device").c_str(), &link) == 0;
        const bool permanent = PermanentAddress(dir);
        const int rank = physical ? (permanent ? 0 : 1) : (permanent ? 2 : 3);
        if (rank < bestRank) {
            best = std::move(address);
            bestRank = rank;
        }
    }
    return best;
}

SecretBytes HostName() {
    char name[HOST_NAME_MAX + 1] = {};
    SecretBytes value;
    if (gethostname(name, sizeof name - 1) == 0)
        value = Trimmed(name, strlen(name));
    OPENSSL_cleanse(name, sizeof name);
    return value;
}

std::string RootMountSource(const std::string& mountinfo, unsigned major, unsigned minor) {
    char device[32];
    snprintf(device, sizeof device, "%u:%u", major, minor);
    std::string source;
    size_t start = 0;
    while (start < mountinfo.size()) {
        size_t end = mountinfo.find('\n', start);
        if (end == std::string::npos)
            end = mountinfo.size();
        // id parent major:minor root mount-point options [optional...] - type source super-options
        const std::vector<std::string> fields = Fields(mountinfo.substr(start, end - start));
        start = end + 1;
        if (fields.size() < 6 || fields[2] != device || fields[4] != "/")
            continue;
        const auto dash = std::find(fields.begin() + 6, fields.end(), "-");
        if (dash == fields.end() || fields.end() - dash < 3)
            continue;
        // Later lines are mounted over earlier ones: the last "/" is the one seen.
        source = Unescape(*(dash + 2));
    }
    return source;
}

SecretBytes UuidFromLinks(const std::string& byUuidDir, const std::vector<dev_t>& devices) {
    // The names are the UUIDs of every file system: they are wiped after, and
    // looked up relative to the folder so that no path built of one is left.
    std::vector<std::string> names = SortedEntries(byUuidDir);
    SecretBytes uuid;
    const int dir = open(byUuidDir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    for (const std::string& name : names) {
        struct stat node;
        if (dir >= 0 && fstatat(dir, name.c_str(), &node, 0) == 0 && S_ISBLK(node.st_mode) &&
            Contains(devices, node.st_rdev)) {
            uuid = Trimmed(name.data(), name.size());
            break;
        }
    }
    if (dir >= 0)
        close(dir);
    for (std::string& name : names)
        OPENSSL_cleanse(&name[0], name.size());
    return uuid;
}

SecretBytes ExtSuperblockUuid(const unsigned char* superblock, size_t size) {
    constexpr size_t kMagicAt = 0x38;
    constexpr size_t kUuidAt = 0x68;
    constexpr size_t kUuidSize = 16;
    if (size < kUuidAt + kUuidSize || superblock[kMagicAt] != 0x53 ||
        superblock[kMagicAt + 1] != 0xEF)
        return {};
    const unsigned char* uuid = superblock + kUuidAt;
    if (std::all_of(uuid, uuid + kUuidSize, [](unsigned char b) { return b == 0; }))
        return {};
    char text[37];
    size_t at = 0;
    for (size_t i = 0; i < kUuidSize; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10)
            text[at++] = '-';
        snprintf(text + at, sizeof text - at, "%02x", uuid[i]);
        at += 2;
    }
    SecretBytes value(text, at);
    OPENSSL_cleanse(text, sizeof text);
    return value;
}

SecretBytes RootFsUuid() {
    struct stat root;
    if (stat("/", &root) != 0)
        return {};
    // btrfs and some others report an anonymous device for "/"; the block
    // device is then only known through the mount source.
    std::vector<dev_t> devices{root.st_dev};
    const std::string source = RootMountSource(ReadText("/proc/self/mountinfo", kMaxMountInfo),
                                               major(root.st_dev), minor(root.st_dev));
    struct stat node;
    if (!source.empty() && source[0] == '/' && stat(source.c_str(), &node) == 0 &&
        S_ISBLK(node.st_mode) && !Contains(devices, node.st_rdev))
        devices.push_back(node.st_rdev);
    SecretBytes uuid = UuidFromLinks("/dev/disk/by-uuid", devices);
    if (!uuid.empty())
        return uuid;
    // Without udev there are no links; an ext file system is read directly,
    // which needs the rights to read the device (root, or the disk group).
    for (dev_t device : devices) {
        const std::string nodePath = DeviceNode(device, source);
        if (!nodePath.empty())
            uuid = SuperblockUuid(nodePath);
        if (!uuid.empty())
            break;
    }
    return uuid;
}

}  // namespace detail
}  // namespace hostseal
