#include "agent/StateDirectory.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wx/filename.h>
#include <wx/log.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <utility>

#include "core/common/FileUtil.h"

namespace {

constexpr char kLockName[] = "vesk-agent.lock";
// What vesk.Config writes before it renames over config.xml: "config.xml.new"
// from older agents, "config.xml.new.<writer>" now.
constexpr char kTemporaryPrefix[] = "config.xml.new";

std::string HolderOf(int fd) {
    char text[32] = {};
    const ssize_t n = pread(fd, text, sizeof text - 1, 0);
    if (n <= 0)
        return "unknown";
    text[n] = '\0';
    text[strcspn(text, "\n")] = '\0';
    return text;
}

void WritePid(int fd) {
    const std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(fd, 0) != 0 || pwrite(fd, pid.data(), pid.size(), 0) < 0)
        wxLogWarning(wxS("vesk-agent: cannot write the lock file: %s"),
                     wxString::FromUTF8(strerror(errno)));
}

struct DirClose {
    void operator()(DIR* dir) const { closedir(dir); }
};

}  // namespace

CStateDirectory::CStateDirectory(std::string path) : path(std::move(path)) {}

CStateDirectory::~CStateDirectory() {
    if (lockFd >= 0)
        close(lockFd);
}

bool CStateDirectory::Claim(std::string& error) {
    const wxString dir = wxString::FromUTF8(path);
    if (!wxFileName::DirExists(dir) && !wxFileName::Mkdir(dir, 0700, wxPATH_MKDIR_FULL)) {
        error = "cannot make the state directory '" + path + "'";
        return false;
    }
    VeskCore::SecureFileOrDirectory(dir, false);
    const std::string lockPath = path + "/" + kLockName;
    lockFd = open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (lockFd < 0) {
        error = "cannot open '" + lockPath + "': " + strerror(errno);
        return false;
    }
    if (flock(lockFd, LOCK_EX | LOCK_NB) != 0) {
        error = errno == EWOULDBLOCK
                    ? "the state directory '" + path + "' is in use by another agent (process " +
                          HolderOf(lockFd) + ")"
                    : "cannot lock '" + lockPath + "': " + strerror(errno);
        return false;
    }
    WritePid(lockFd);
    RemoveStaleTemporaries();
    return true;
}

void CStateDirectory::RemoveStaleTemporaries() const {
    const std::unique_ptr<DIR, DirClose> dir(opendir(path.c_str()));
    if (!dir)
        return;
    while (const dirent* entry = readdir(dir.get())) {
        if (strncmp(entry->d_name, kTemporaryPrefix, sizeof kTemporaryPrefix - 1) != 0)
            continue;
        const std::string file = path + "/" + entry->d_name;
        if (unlink(file.c_str()) == 0)
            wxLogMessage(wxS("vesk-agent: removed '%s', left by a writer that was stopped"),
                         wxString::FromUTF8(file));
    }
}
