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
#include <cstdlib>
#include <initializer_list>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "core/common/LogSysError.h"
#include "core/common/NumberedMessages.h"
#include "core/common/StringUtil.h"

namespace VeskCore {

namespace {

using FileId = std::pair<dev_t, ino_t>;

wxString WithSeparator(const wxString& path) {
    return path.EndsWith(wxFILE_SEP_PATH) ? path : path + wxFILE_SEP_PATH;
}

// Without trailing separators ("/" stays "/"): lstat of "link/" would resolve
// the link, and that is just what the callers of this must not do.
std::string WithoutSeparator(const wxString& path) {
    std::string native = path.utf8_string();
    while (native.size() > 1 && native.back() == '/') {
        native.pop_back();
    }
    return native;
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
bool IsRealDirectory(const std::string& path) {
    struct stat info {};
    return lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool IsSpecial(mode_t mode) {
    return S_ISFIFO(mode) || S_ISSOCK(mode) || S_ISCHR(mode) || S_ISBLK(mode);
}

// A FIFO, socket or device, or a link that leads to one.
bool IsSpecialFile(const wxString& path) {
    const std::string native = path.utf8_string();
    struct stat info {};
    return (lstat(native.c_str(), &info) == 0 && IsSpecial(info.st_mode)) ||
           (stat(native.c_str(), &info) == 0 && IsSpecial(info.st_mode));
}

// Scripts pass nil, tables, booleans and strings that start with NUL as "",
// and code that appends a separator turns "" into the root directory.
bool RefusedAsEmpty(const wxString& operation, const wxString& path) {
    if (!path.empty()) {
        return false;
    }
    wxLogError(wxS("%s: refusing an empty path"), operation);
    errno = ENOENT;
    return true;
}

std::string RealPath(const std::string& path) {
    const std::unique_ptr<char, decltype(&std::free)> real(realpath(path.c_str(), nullptr),
                                                           &std::free);
    return real ? std::string(real.get()) : std::string();
}

// Where `path` is or would be once made: its real path, or for a path that
// does not exist yet, its parent's real path plus its last component. Empty
// when neither resolves; mkdir then fails on its own.
std::string ResolvedPath(const std::string& path) {
    std::string real = RealPath(path);
    if (!real.empty()) {
        return real;
    }
    const size_t slash = path.rfind('/');
    const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
    if (name.empty() || name == "." || name == "..") {
        return std::string();
    }
    const std::string parent = slash == std::string::npos ? std::string(".")
                               : slash == 0               ? std::string("/")
                                                          : path.substr(0, slash);
    real = RealPath(parent);
    if (real.empty()) {
        return real;
    }
    return real == "/" ? real + name : real + "/" + name;
}

// `inner` is `outer` or lies below it; a plain prefix test would put
// "/a/bc" inside "/a/b".
bool IsWithin(const std::string& inner, const std::string& outer) {
    return inner.compare(0, outer.size(), outer) == 0 &&
           (inner.size() == outer.size() || outer == "/" || inner[outer.size()] == '/');
}

class Descriptor {
  public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return fd_; }
    // close(2)'s own result: a late write error (a full disk over NFS) shows
    // only here.
    int Close() {
        const int fd = fd_;
        fd_ = -1;
        return close(fd);
    }

  private:
    int fd_;
};

// Makes room at `to` for a new file or link: whatever non-directory stands
// there goes (a link included, so nothing is written through it). 0 or errno.
int ClearTheWay(const std::string& to) {
    struct stat info {};
    if (lstat(to.c_str(), &info) == 0 && !S_ISDIR(info.st_mode) && unlink(to.c_str()) != 0) {
        return errno;
    }
    return 0;
}

// The process umask is shared by all threads, so the file is made 0600 and
// given its mode afterwards instead of changing the umask around the copy.
// Only the permission bits travel: a set-user-ID bit on a file someone else
// put in the tree must not come out on a copy owned by this process.
// 0, -1 if `from` turned out not to be a regular file, or errno.
int CopyRegularFile(const std::string& to, const std::string& from) {
    // O_NONBLOCK: should `from` have been swapped for a FIFO since the walk
    // looked at it, the open must not wait for a writer that never comes.
    Descriptor in(open(from.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (in.get() < 0) {
        return errno == ELOOP ? -1 : errno;
    }
    struct stat info {};
    if (fstat(in.get(), &info) != 0) {
        return errno;
    }
    if (!S_ISREG(info.st_mode)) {
        return -1;
    }
    if (fcntl(in.get(), F_SETFL, 0) != 0) {
        return errno;
    }
    if (const int error = ClearTheWay(to)) {
        return error;
    }
    Descriptor out(open(to.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0600));
    if (out.get() < 0) {
        return errno;
    }
    int error = 0;
    std::vector<char> buffer(1 << 16);
    for (;;) {
        const ssize_t got = read(in.get(), buffer.data(), buffer.size());
        if (got < 0 && errno == EINTR) {
            continue;
        }
        if (got <= 0) {
            error = got < 0 ? errno : 0;
            break;
        }
        for (ssize_t done = 0; done < got && error == 0;) {
            const ssize_t put = write(out.get(), buffer.data() + done, size_t(got - done));
            if (put >= 0) {
                done += put;
            } else if (errno != EINTR) {
                error = errno;
            }
        }
        if (error != 0) {
            break;
        }
    }
    if (error == 0 && fchmod(out.get(), info.st_mode & 0777) != 0) {
        error = errno;
    }
    if (out.Close() != 0 && error == 0) {
        error = errno;
    }
    if (error != 0) {
        (void)unlink(to.c_str());  // half a file would pass for the whole one
    }
    return error;
}

// Recreates the link `from` at `to` with the same target, as `cp -a` does.
// 0 or errno.
int CopyLink(const std::string& to, const std::string& from, off_t size) {
    // st_size is only a hint (0 on some file systems): grow until it fits.
    std::string target(std::max<size_t>(size_t(size) + 1, 256), '\0');
    for (;;) {
        const ssize_t length = readlink(from.c_str(), &target[0], target.size());
        if (length < 0) {
            return errno;
        }
        if (size_t(length) < target.size()) {
            target.resize(size_t(length));
            break;
        }
        target.resize(target.size() * 2);
    }
    if (const int error = ClearTheWay(to)) {
        return error;
    }
    return symlink(target.c_str(), to.c_str()) == 0 ? 0 : errno;
}

constexpr int kAllEntries = wxDIR_FILES | wxDIR_DIRS | wxDIR_HIDDEN;

// `busy` holds the directories being copied above this call, and the
// destination root. With links never followed, only a bind mount can still
// lead the walk back into a directory it is copying or into the copy itself.
bool CopyTree(const wxString& destinationPath, const wxString& sourcePath, bool mayExist, bool top,
              std::vector<FileId>& busy) {
    const wxString source = WithSeparator(sourcePath);
    const wxString destination = WithSeparator(destinationPath);
    wxDir dir(source);
    if (!dir.IsOpened()) {
        VESK_LOG_SYS_ERROR(wxS("CopyDirectory: %s: "), source);
        return false;
    }
    // The caller's destination may be a link to a directory, as `source` may;
    // below it, a link where a directory should go is not merged into.
    const bool merge = mayExist && (top ? wxDirExists(destination)
                                        : IsRealDirectory(WithoutSeparator(destinationPath)));
    // mkdir(2) rather than wxFileName::Mkdir, which logs a line of its own
    // and loses errno before the caller can report it.
    if (!merge && mkdir(destination.utf8_string().c_str(), 0700) != 0) {
        const int error = errno;
        VESK_LOG_SYS_ERROR(error, wxS("CopyDirectory: %s: "), destination);
        return false;
    }
    FileId id;
    const size_t depth = busy.size();
    if (Identify(source, id)) {
        busy.push_back(id);
    }
    if (top && Identify(destination, id)) {
        busy.push_back(id);
    }
    wxString name;
    for (bool more = dir.GetFirst(&name, wxString(), kAllEntries); more;
         more = dir.GetNext(&name)) {
        const wxString from = source + name;
        const wxString to = destination + name;
        const std::string fromNative = from.utf8_string();
        struct stat info {};
        int error = 0;
        if (lstat(fromNative.c_str(), &info) != 0) {
            error = errno;
        } else if (S_ISDIR(info.st_mode)) {
            if (std::find(busy.begin(), busy.end(), FileId(info.st_dev, info.st_ino)) !=
                busy.end()) {
                wxLogError(wxS("CopyDirectory: %s: directory is already being copied"), from);
                continue;
            }
            CopyTree(to, from, mayExist, false, busy);
        } else if (S_ISLNK(info.st_mode)) {
            error = CopyLink(to.utf8_string(), fromNative, info.st_size);
        } else if (S_ISREG(info.st_mode)) {
            error = CopyRegularFile(to.utf8_string(), fromNative);
        } else {
            error = -1;
        }
        if (error < 0) {
            wxLogError(wxS("CopyDirectory: %s: not a regular file, directory or link; skipped"),
                       from);
        } else if (error > 0) {
            VESK_LOG_SYS_ERROR(error, wxS("CopyDirectory: %s: "), name);
        }
    }
    busy.resize(depth);
    return true;
}

bool RemoveTree(const wxString& path) {
    if (IsRealDirectory(WithoutSeparator(path))) {
        const wxString top = WithSeparator(path);
        wxDir dir(top);
        wxString name;
        for (bool more = dir.IsOpened() && dir.GetFirst(&name, wxString(), kAllEntries); more;
             more = dir.GetNext(&name)) {
            const wxString entry = top + name;
            if (IsRealDirectory(entry.utf8_string())) {
                RemoveTree(entry);
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

}  // namespace

bool CopyDirectory(const wxString& destination, const wxString& source, bool mayExist) {
    if (RefusedAsEmpty(wxS("CopyDirectory"), destination) ||
        RefusedAsEmpty(wxS("CopyDirectory"), source)) {
        return false;
    }
    const std::string target = ResolvedPath(WithoutSeparator(destination));
    if (target == "/") {
        wxLogError(wxS("CopyDirectory: refusing the root directory as destination"));
        return false;
    }
    const std::string origin = RealPath(source.utf8_string());
    if (!origin.empty() && !target.empty() && IsWithin(target, origin)) {
        wxLogError(wxS("CopyDirectory: refusing to copy %s into itself (%s)"), source, destination);
        return false;
    }
    std::vector<FileId> busy;
    return CopyTree(destination, source, mayExist, true, busy);
}

bool RemoveDirectory(const wxString& path) {
    if (RefusedAsEmpty(wxS("RemoveDirectory"), path)) {
        return false;
    }
    const std::string native = WithoutSeparator(path);
    if (IsRealDirectory(native) && RealPath(native) == "/") {
        wxLogError(wxS("RemoveDirectory: refusing to remove the root directory (%s)"), path);
        return false;
    }
    return RemoveTree(wxString::FromUTF8(native));
}

bool RemoveFileChecked(const wxString& path) {
    return !RefusedAsEmpty(wxS("RemoveFile"), path) && wxRemoveFile(path);
}

bool RenameFileChecked(const wxString& from, const wxString& to, bool overwrite) {
    if (RefusedAsEmpty(wxS("RenameFile"), from) || RefusedAsEmpty(wxS("RenameFile"), to)) {
        return false;
    }
    for (const wxString* path : {&from, &to}) {
        if (IsSpecialFile(*path)) {
            wxLogError(wxS("RenameFile: %s: refusing a FIFO, socket or device"), *path);
            errno = EINVAL;
            return false;
        }
    }
    return wxRenameFile(from, to, overwrite);
}

bool ReplaceFile(const wxString& from, const wxString& to) {
    if (RefusedAsEmpty(wxS("ReplaceFile"), from) || RefusedAsEmpty(wxS("ReplaceFile"), to)) {
        return false;
    }
    // wxRenameFile would fall back to copying where rename fails, and a copy
    // can be seen half-written; a replacement must be all or nothing.
    if (std::rename(from.utf8_string().c_str(), to.utf8_string().c_str()) == 0) {
        return true;
    }
    const int error = errno;
    wxLogError(NumberedMessage::kFileRenameFailed, from, to, error, ErrnoToString(error));
    return false;
}

void SecureFileOrDirectory(const wxString& path, bool traversable) {
    if (RefusedAsEmpty(wxS("SecureFileOrDirectory"), path)) {
        return;
    }
    // O_PATH opens nothing (no device driver, no FIFO wait), yet pins the
    // object whose type is checked, so it can't be swapped for a device
    // between the check and the chmod.
    const std::string native = path.utf8_string();
    Descriptor handle(open(native.c_str(), O_PATH | O_CLOEXEC));
    struct stat info {};
    if (handle.get() < 0 || fstat(handle.get(), &info) != 0) {
        return;
    }
    if (IsSpecial(info.st_mode)) {
        wxLogError(wxS("SecureFileOrDirectory: %s: refusing a FIFO, socket or device"), path);
        return;
    }
    mode_t mode = 0600;
    if (S_ISDIR(info.st_mode)) {
        mode = traversable ? 0711 : 0700;
    }
    // fchmod refuses an O_PATH descriptor; its /proc name reaches the same
    // object. Without /proc (a chroot) the path itself has to do.
    const std::string pinned = "/proc/self/fd/" + std::to_string(handle.get());
    if (chmod(pinned.c_str(), mode) != 0 && errno == ENOENT) {
        (void)chmod(native.c_str(), mode);
    }
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
