#include "core/host/HmdQueries.h"

#include <dirent.h>
#include <fcntl.h>
#include <netdb.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wx/log.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "core/common/LogSysError.h"
#include "core/host/HmdFileContents.h"
#include "core/host/HmdText.h"

extern char** environ;

namespace VeskCore {

namespace {

constexpr unsigned long long kDefaultContentsLimit = 1000000;

struct CloseDir {
    void operator()(DIR* dir) const { closedir(dir); }
};

void SetCommandVersion(CHostMetaDataQueryResult& result, int version) {
    result.commandVersion = version;
    result.SetAttributeNull(&result.commandVersion, false);
}

std::unique_ptr<CHostMetaData> NewItem(const wxString& type, const wxString& identifier) {
    auto item = std::make_unique<CHostMetaData>();
    item->type = type;
    item->SetAttributeNull(&item->type, false);
    item->identifier = identifier;
    item->SetAttributeNull(&item->identifier, false);
    return item;
}

wxString Decimal(long long value) {
    return wxString::Format(wxS("%lld"), value);
}

// "entries" of a directory: each name but "." and ".." and a "|", as UTF-8.
bool ListDirectory(const std::string& path, std::string& entries) {
    // O_DIRECTORY refuses a FIFO or device before it could block.
    const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC);
    DIR* opened = fd >= 0 ? fdopendir(fd) : nullptr;
    if (opened == nullptr) {
        if (fd >= 0)
            close(fd);
        return false;
    }
    const std::unique_ptr<DIR, CloseDir> dir(opened);
    while (const dirent* entry = readdir(dir.get())) {
        const char* name = entry->d_name;
        if (strcmp(name, ".") == 0 || strcmp(name, "..") == 0)
            continue;
        AppendHostText(name, strlen(name), entries);
        entries += '|';
    }
    return true;
}

void AddFileInfo(const wxString& path, CHostMetaDataQueryResult& result) {
    const std::string bytes = path.utf8_string();
    struct stat status;
    if (stat(bytes.c_str(), &status) != 0)
        return;
    const bool directory = S_ISDIR(status.st_mode);
    if (!directory && !S_ISREG(status.st_mode))
        return;  // FIFOs, devices, sockets are no files here
    std::unique_ptr<CHostMetaData> item = NewItem(wxS("fileInfo"), path);
    item->AppendAttribute("type", directory ? wxS("directory") : wxS("file"));
    item->AppendAttribute("lastAccess", Decimal(status.st_atime * 1000LL));
    item->AppendAttribute("lastModified", Decimal(status.st_mtime * 1000LL));
    item->AppendAttribute("created", Decimal(status.st_ctime * 1000LL));
    item->AppendAttribute("size", Decimal(status.st_size));
    item->AppendAttribute("mode",
                          wxString::Format(wxS("%#o"), static_cast<unsigned>(status.st_mode)));
    const wxString owner = wxString::Format(wxS("%d"), static_cast<int>(status.st_uid));
    item->AppendAttribute("userId", owner);
    item->AppendAttribute("groupId", owner);  // the owner again: what managers have always read
    if (lstat(bytes.c_str(), &status) == 0 && S_ISLNK(status.st_mode)) {
        char target[1024];
        const ssize_t length = readlink(bytes.c_str(), target, sizeof target);
        if (length > 0)
            item->AppendAttribute("linkTo", HostText(target, static_cast<size_t>(length)));
    }
    result.items.AddChild(item.release());
}

void AddVariable(const char* name, size_t nameLength, const char* value,
                 CHostMetaDataQueryResult& result) {
    std::unique_ptr<CHostMetaData> item =
        NewItem(wxS("environmentVariable"), HostText(name, nameLength));
    item->AppendAttribute("value", HostText(value, strlen(value)));
    result.items.AddChild(item.release());
}

unsigned long long ContentsLimit(int argCount, const wxString* args) {
    unsigned long long limit = 0;
    return argCount >= 3 && args[2].ToULongLong(&limit, 10) ? limit : kDefaultContentsLimit;
}

}  // namespace

bool GetHmdDirectoryListing(CHostMetaDataQueryResult& result, int argCount, const wxString* args) {
    if (argCount < 1)
        return false;
    std::string entries;
    if (!ListDirectory(args[0].utf8_string(), entries))
        return false;
    std::unique_ptr<CHostMetaData> item = NewItem(wxS("directoryListing"), args[0]);
    item->AppendAttribute("entries", wxString::FromUTF8Unchecked(entries.data(), entries.size()));
    result.items.AddChild(item.release());
    SetCommandVersion(result, 1);
    return true;
}

bool GetHmdFileInfo(CHostMetaDataQueryResult& result, int argCount, const wxString* args) {
    if (argCount < 1)
        return false;
    for (int i = 0; i < argCount; ++i)
        AddFileInfo(args[i], result);
    SetCommandVersion(result, 2);
    return true;
}

bool GetHmdEnvironment(CHostMetaDataQueryResult& result, int argCount, const wxString* args) {
    if (argCount == 0) {
        for (char** entry = environ; entry != nullptr && *entry != nullptr; ++entry) {
            const char* equals = strchr(*entry, '=');
            const size_t nameLength =
                equals != nullptr ? static_cast<size_t>(equals - *entry) : strlen(*entry);
            AddVariable(*entry, nameLength, equals != nullptr ? equals + 1 : "", result);
        }
    }
    for (int i = 0; i < argCount; ++i) {
        const std::string name = args[i].utf8_string();
        if (const char* value = getenv(name.c_str()))
            AddVariable(name.data(), name.size(), value, result);
    }
    SetCommandVersion(result, 1);
    return true;
}

bool GetHmdFileContents(CHostMetaDataQueryResult& result, int argCount, const wxString* args) {
    if (argCount < 1)
        return false;
    const std::string path = args[0].utf8_string();
    const unsigned long long limit = ContentsLimit(argCount, args);
    struct stat status;
    // The file is judged before the pattern, as it always was: a bad pattern
    // for a missing file logs nothing.
    if (stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode) ||
        static_cast<unsigned long long>(status.st_size) > limit)
        return false;
    const wxString expression = argCount >= 2 ? args[1] : wxString();
    CLineMatcher matcher;
    std::string error;
    if (!matcher.Compile(expression.utf8_string(), error)) {
        wxLogError(wxS("Invalid regular expression '%s': %s"), expression,
                   wxString::FromUTF8(error));
        return false;
    }
    wxString matched;
    if (SearchFile(path, limit, matcher, matched) != ContentsRead::Read)
        return false;
    std::unique_ptr<CHostMetaData> item = NewItem(wxS("fileContents"), args[0]);
    // The lines can be most of a large file: moved in, not copied.
    item->AppendAttribute("matchedStrings", wxString());
    item->attributes.GetAttribute("matchedStrings")->value[0].swap(matched);
    item->AppendAttribute("searchString", expression);
    result.items.AddChild(item.release());
    SetCommandVersion(result, 1);
    return true;
}

bool GetHmdListenPorts(CHostMetaDataQueryResult& result, int argCount, const wxString* args) {
    const bool detailed = std::any_of(args, args + std::max(argCount, 0),
                                      [](const wxString& arg) { return arg == wxS("detailed"); });
    std::vector<CConnectionTableEntryEx> ipv4;
    std::vector<CConnectionTableEntryExV6> ipv6;
    if (GetTcpTable(detailed, ipv4, ipv6))
        ConnectionTablesToHmdqr(std::move(ipv4), std::move(ipv6), "tcp", result);
    ipv4.clear();
    ipv6.clear();
    if (GetUdpTable(detailed, ipv4, ipv6))
        ConnectionTablesToHmdqr(std::move(ipv4), std::move(ipv6), "udp", result);
    SetCommandVersion(result, 2);
    return true;
}

void ConnectionTablesToHmdqr(std::vector<CConnectionTableEntryEx> ipv4Table,
                             std::vector<CConnectionTableEntryExV6> ipv6Table, const char* protocol,
                             CHostMetaDataQueryResult& result) {
    std::sort(ipv4Table.begin(), ipv4Table.end());
    std::sort(ipv6Table.begin(), ipv6Table.end());
    for (const CConnectionTableEntryEx& entry : ipv4Table) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr = entry.localAddress;
        address.sin_port = htons(entry.localPort);
        ConnectionToHmdqr(reinterpret_cast<const sockaddr*>(&address), sizeof address, protocol,
                          "4", entry, result);
    }
    for (const CConnectionTableEntryExV6& entry : ipv6Table) {
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        address.sin6_addr = entry.localAddress;
        address.sin6_port = htons(entry.localPort);
        ConnectionToHmdqr(reinterpret_cast<const sockaddr*>(&address), sizeof address, protocol,
                          "6", entry, result);
    }
}

void ConnectionToHmdqr(const sockaddr* address, socklen_t length, const char* protocol,
                       const char* version, const CConnectionInfo& info,
                       CHostMetaDataQueryResult& result) {
    char host[1025];
    char port[32];
    const int failed = getnameinfo(address, length, host, sizeof host, port, sizeof port,
                                   NI_NUMERICHOST | NI_NUMERICSERV);
    if (failed != 0) {
        VESK_LOG_SYS_ERROR(wxS("Error on getnameinfo"));
        return;
    }
    const bool four = strcmp(version, "4") == 0;
    const wxString identifier =
        wxString::Format(wxS("%s%s/%.128s/%.32s"), wxString::FromUTF8(protocol),
                         four ? wxString() : wxString::FromUTF8(version), wxString::FromUTF8(host),
                         wxString::FromUTF8(port));
    std::unique_ptr<CHostMetaData> item = NewItem(wxS("listenPort"), identifier);
    if (!info.userId.empty()) {
        item->AppendAttribute("userId", info.userId);
        if (!info.user.empty())
            item->AppendAttribute("user", info.user);
    }
    if (info.processId != 0)
        item->AppendAttribute("processId", Decimal(info.processId));
    if (!info.process.empty())
        item->AppendAttribute("process", info.process);
    if (!info.path.empty())
        item->AppendAttribute("path", info.path);
    item->AppendAttribute("protocol", protocol);
    item->AppendAttribute("port", port);
    item->AppendAttribute("localAddress", host);
    item->AppendAttribute("ipVersion", version);
    if (!info.groupId.empty()) {
        item->AppendAttribute("groupId", info.groupId);
        if (!info.group.empty())
            item->AppendAttribute("group", info.group);
    }
    if (info.created != 0)
        item->AppendAttribute("created", Decimal(info.created));
    CHostMetaData* present = result.items.FindOrAdd(item.get());
    if (present == nullptr) {
        item.release();  // the list has it
        return;
    }
    CHostMetaDataAttribute* listeners = present->attributes.GetAttribute("listeners");
    if (listeners == nullptr) {
        present->AppendAttribute("listeners", wxS("2"));
    } else {
        unsigned long count = 0;
        listeners->SetSingleValue(listeners->GetSingleValue().ToULong(&count) ? Decimal(count + 1)
                                                                              : wxString(wxS("2")));
    }
    present->MergeAttributes(*item);
}

bool GetHmdQueryCapabilities(CHostMetaDataQueryCapabilitys& list) {
    struct Row {
        const char* command;
        int version;
        std::vector<const char*> attributes;
    };
    const Row rows[] = {
        {"getEnvironment", 1, {}},
        {"getFileContents", 0, {"matchedStrings", "searchString"}},
        {"getDirectoryListing", 0, {"entries"}},
        {"getFileInfo",
         1,
         {"type", "lastAccess", "lastModified", "created", "size", "mode", "linkTo", "userId",
          "groupId"}},
        {"getRunningProcesses",
         2,
         {"process", "parent", "commandLine", "user", "userId", "threads"}},
        {"getInstalledSoftware",
         2,
         {"version", "manufacturer", "installedDate", "installLocation", "name", "size"}},
        {"getListenPorts",
         3,
         {"group", "groupId", "ipVersion", "listeners", "localAddress", "port", "process",
          "processId", "protocol", "user", "userId"}},
        {"getUsers",
         1,
         {"cannotChangePassword", "disabled", "fullName", "groups", "homeFolder", "lockedOut",
          "passwordHasExpired", "passwordLastChanged", "passwordNeverExpires", "user", "group",
          "logonShell", "passwordExpiredDaysBeforeDisabled", "passwordExpiry",
          "passwordExpiryInDays", "passwordMinDaysBetweenChanges", "passwordWarningDays"}},
    };
    for (const Row& row : rows) {
        auto* capability = new CHostMetaDataQueryCapability(row.command, row.version, false);
        for (const char* name : row.attributes)
            capability->AppendAttribute(name, nullptr);
        list.AddChild(capability);
    }
    return true;
}

}  // namespace VeskCore
