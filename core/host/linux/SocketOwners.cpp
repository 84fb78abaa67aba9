#include "core/host/linux/SocketOwners.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

#include "core/host/HmdText.h"
#include "core/host/linux/ConnectionTablesParse.h"
#include "core/host/linux/ProcFiles.h"

namespace VeskCore {
namespace LinuxSockets {

namespace {

using LinuxFiles::OpenDirectoryAt;
using LinuxFiles::ReadLinkAt;
using LinuxFiles::ReadWholeFile;
using LinuxFiles::UniqueDir;
using LinuxFiles::UniqueFd;

long ParsePid(const char* name) {
    char* end = nullptr;
    const long pid = strtol(name, &end, 10);
    return name[0] >= '1' && name[0] <= '9' && *end == '\0' ? pid : 0;
}

// Records in `found` the sockets of `wanted` that one process holds.
void ScanDescriptors(int procFd, long pid, const std::unordered_set<uint64_t>& wanted,
                     std::unordered_map<uint64_t, long>& found) {
    const std::string path = std::to_string(pid) + "/fd";
    const UniqueDir fds = OpenDirectoryAt(procFd, path.c_str());
    if (!fds)
        return;  // gone, or another user's
    while (found.size() < wanted.size()) {
        const dirent* entry = readdir(fds.get());
        if (entry == nullptr)
            break;
        if (entry->d_name[0] == '.')
            continue;
        const uint64_t inode = ParseSocketInode(ReadLinkAt(dirfd(fds.get()), entry->d_name));
        if (inode != 0 && wanted.count(inode) != 0)
            found.emplace(inode, pid);  // the first holder stays
    }
}

// Names of users and groups, each looked up once per call.
class Names {
  public:
    wxString User(uid_t uid) {
        auto known = users_.find(uid);
        if (known == users_.end())
            known = users_.emplace(uid, LookUp<passwd>(uid, getpwuid_r)).first;
        return known->second;
    }
    wxString Group(gid_t gid) {
        auto known = groups_.find(gid);
        if (known == groups_.end())
            known = groups_.emplace(gid, LookUp<group>(gid, getgrgid_r)).first;
        return known->second;
    }

  private:
    template <class Entry, class Id, class Lookup>
    static wxString LookUp(Id id, Lookup lookup) {
        std::vector<char> buffer(1024);
        for (;;) {
            Entry entry{};
            Entry* result = nullptr;
            const int error = lookup(id, &entry, buffer.data(), buffer.size(), &result);
            if (error == ERANGE && buffer.size() < (1u << 20)) {
                buffer.resize(buffer.size() * 4);
                continue;
            }
            if (error != 0 || result == nullptr)
                return wxString();
            return HostText(NameOf(*result));
        }
    }
    static std::string NameOf(const passwd& entry) { return entry.pw_name; }
    static std::string NameOf(const group& entry) { return entry.gr_name; }

    std::map<uid_t, wxString> users_;
    std::map<gid_t, wxString> groups_;
};

CConnectionInfo DescribeProcess(int procFd, long pid, long long bootSeconds, Names& names) {
    CConnectionInfo info;
    info.processId = pid;
    const std::string dir = std::to_string(pid);
    std::string text, name;
    unsigned long long startTicks = 0;
    if (ReadWholeFile(procFd, (dir + "/stat").c_str(), text) &&
        ParseProcessStat(text, name, startTicks)) {
        info.process = HostText(name);
        const long ticksPerSecond = sysconf(_SC_CLK_TCK);
        if (bootSeconds > 0 && ticksPerSecond > 0)
            info.created = bootSeconds * 1000 +
                           static_cast<long long>(startTicks * 1000 /
                                                  static_cast<unsigned long long>(ticksPerSecond));
    }
    info.path = HostText(ReadLinkAt(procFd, (dir + "/exe").c_str()));
    uid_t uid;
    gid_t gid;
    if (ReadWholeFile(procFd, (dir + "/status").c_str(), text) && ParseStatusIds(text, uid, gid)) {
        info.userId = wxString::Format(wxS("%u"), static_cast<unsigned>(uid));
        info.user = names.User(uid);
        info.groupId = wxString::Format(wxS("%u"), static_cast<unsigned>(gid));
        info.group = names.Group(gid);
    }
    return info;
}

}  // namespace

std::unordered_map<uint64_t, CConnectionInfo> FindSocketOwners(
    const std::unordered_set<uint64_t>& inodes) {
    std::unordered_map<uint64_t, CConnectionInfo> owners;
    const UniqueFd procFd(open("/proc", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    const UniqueDir processes = OpenDirectoryAt(procFd.get(), ".");
    if (!procFd || !processes || inodes.empty())
        return owners;
    std::unordered_map<uint64_t, long> holders;
    while (holders.size() < inodes.size()) {
        const dirent* entry = readdir(processes.get());
        if (entry == nullptr)
            break;
        if (const long pid = ParsePid(entry->d_name))
            ScanDescriptors(procFd.get(), pid, inodes, holders);
    }
    std::string stat;
    const long long bootSeconds =
        ReadWholeFile(procFd.get(), "stat", stat) ? ParseBootTime(stat) : 0;
    Names names;
    std::map<long, CConnectionInfo> described;
    for (const auto& [inode, pid] : holders) {
        auto process = described.find(pid);
        if (process == described.end())
            process = described.emplace(pid, DescribeProcess(procFd.get(), pid, bootSeconds, names))
                          .first;
        owners.emplace(inode, process->second);
    }
    return owners;
}

}  // namespace LinuxSockets
}  // namespace VeskCore
