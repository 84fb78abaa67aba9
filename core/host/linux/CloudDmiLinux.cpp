#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/host/CloudDmi.h"

namespace VeskCore {
namespace {

constexpr size_t kLongestFact = 256;

// The first line of `path` without trailing blanks; empty when it can't be
// read. O_NONBLOCK and the type test keep a FIFO planted in a test folder
// from holding the caller.
std::string ReadFact(const std::string& path) {
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0)
        return std::string();
    struct stat info {};
    char buffer[kLongestFact];
    ssize_t got = 0;
    if (fstat(fd, &info) == 0 && S_ISREG(info.st_mode))
        got = read(fd, buffer, sizeof buffer);
    close(fd);
    std::string fact(buffer, got > 0 ? static_cast<size_t>(got) : 0);
    fact = fact.substr(0, fact.find('\n'));
    while (!fact.empty() && (fact.back() == ' ' || fact.back() == '\t' || fact.back() == '\r'))
        fact.pop_back();
    return fact;
}

}  // namespace

DmiFacts ReadDmiFacts(const std::string& folder) {
    DmiFacts facts;
    facts.sysVendor = ReadFact(folder + "/sys_vendor");
    facts.biosVendor = ReadFact(folder + "/bios_vendor");
    facts.productName = ReadFact(folder + "/product_name");
    facts.boardAssetTag = ReadFact(folder + "/board_asset_tag");
    facts.productUuid = ReadFact(folder + "/product_uuid");
    return facts;
}

}  // namespace VeskCore
