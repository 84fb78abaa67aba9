#include "core/common/FileUtil.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wx/dir.h>
#include <wx/filefn.h>
#include <wx/filename.h>
#include <wx/log.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>
#include <vector>

#include "core/common/LogSysError.h"
#include "core/common/StringUtil.h"

namespace VeskCore {

namespace {

using FileId = std::pair<dev_t, ino_t>;

wxString WithSeparator(const wxString& path) {
    return path.EndsWith(wxFILE_SEP_PATH) ? path : path + wxFILE_SEP_PATH;
}

bool Identify(const wxString& path, FileId& id) {
    struct stat info {};
    if (stat(path.utf8_string().c_str(), &info) != 0) {
        return false;
    }
    id = FileId(info.st_dev, info.st_ino);
    return true;
}

// A directory in its own right, not a link to one.
bool IsRealDirectory(const wxString& path) {
    struct stat info {};
    return lstat(path.utf8_string().c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

constexpr int kAllEntries = wxDIR_FILES | wxDIR_DIRS | wxDIR_HIDDEN;

// `busy` holds the directories being copied above this call, and the
// destination root, so that no loop of links or nesting recurses without end.
bool CopyTree(const wxString& destinationPath, const wxString& sourcePath, bool mayExist,
              std::vector<FileId>& busy) {
    const wxString source = WithSeparator(sourcePath);
    const wxString destination = WithSeparator(destinationPath);
    wxDir dir(source);
    if (!dir.IsOpened()) {
        VESK_LOG_SYS_ERROR(wxS("CopyDirectory: %s: "), source);
        return false;
    }
    // mkdir(2) rather than wxFileName::Mkdir, which logs a line of its own
    // and loses errno before the caller can report it.
    if (!(mayExist && wxDirExists(destination)) &&
        mkdir(destination.utf8_string().c_str(), 0700) != 0) {
        const int error = errno;
        VESK_LOG_SYS_ERROR(error, wxS("CopyDirectory: %s: "), destination);
        return false;
    }
    FileId id;
    const size_t depth = busy.size();
    if (Identify(source, id)) {
        busy.push_back(id);
    }
    if (depth == 0 && Identify(destination, id)) {
        busy.push_back(id);
    }
    wxString name;
    for (bool more = dir.GetFirst(&name, wxString(), kAllEntries); more;
         more = dir.GetNext(&name)) {
        const wxString from = source + name;
        const wxString to = destination + name;
        if (wxDirExists(from)) {
            if (Identify(from, id) && std::find(busy.begin(), busy.end(), id) != busy.end()) {
                wxLogError(wxS("CopyDirectory: %s: directory is already being copied"), from);
                continue;
            }
            CopyTree(to, from, mayExist, busy);
        } else if (!wxCopyFile(from, to, true)) {
            VESK_LOG_SYS_ERROR(wxS("CopyDirectory: %s: "), name);
        }
    }
    busy.resize(depth);
    return true;
}

}  // namespace

bool CopyDirectory(const wxString& destination, const wxString& source, bool mayExist) {
    std::vector<FileId> busy;
    return CopyTree(destination, source, mayExist, busy);
}

bool RemoveDirectory(const wxString& path) {
    if (IsRealDirectory(path)) {
        const wxString top = WithSeparator(path);
        wxDir dir(top);
        wxString name;
        for (bool more = dir.IsOpened() && dir.GetFirst(&name, wxString(), kAllEntries); more;
             more = dir.GetNext(&name)) {
            const wxString entry = top + name;
            if (IsRealDirectory(entry)) {
                RemoveDirectory(entry);
            } else if (!wxRemoveFile(entry)) {
                const int error = errno;
                VESK_LOG_SYS_ERROR(error, wxS("RemoveFile: %.200s"), entry);
            }
        }
    }
    // rmdir(2) rather than wxRmdir, which logs a line of its own first.
    if (rmdir(path.utf8_string().c_str()) != 0) {
        const int error = errno;
        VESK_LOG_SYS_ERROR(error, wxS("RemoveDirectory: %.200s"), path);
        return false;
    }
    return true;
}

bool ReplaceFile(const wxString& from, const wxString& to) {
    // wxRenameFile would fall back to copying where rename fails, and a copy
    // can be seen half-written; a replacement must be all or nothing.
    if (std::rename(from.utf8_string().c_str(), to.utf8_string().c_str()) == 0) {
        return true;
    }
    const int error = errno;
    wxLogError(wxS("3006|rename|%s -> %s|%d (%s)"), from, to, error, ErrnoToString(error));
    return false;
}

void SecureFileOrDirectory(const wxString& path, bool traversable) {
    const std::string native = path.utf8_string();
    struct stat info {};
    mode_t mode = 0600;
    if (stat(native.c_str(), &info) == 0 && S_ISDIR(info.st_mode)) {
        mode = traversable ? 0711 : 0700;
    }
    (void)chmod(native.c_str(), mode);
}

bool SetInheritable(int fd, bool inherit) {
    const int flags = fcntl(fd, F_GETFD);
    if (flags < 0) {
        return false;
    }
    const int wanted = inherit ? (flags & ~FD_CLOEXEC) : (flags | FD_CLOEXEC);
    return fcntl(fd, F_SETFD, wanted) == 0;
}

}  // namespace VeskCore
