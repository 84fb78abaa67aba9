#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wx/filename.h>

#include "core/common/UnzipTarget.h"

namespace VeskCore {
namespace {

void CloseIfOpen(int& fd) {
    if (fd >= 0)
        close(fd);
    fd = -1;
}

// The folder `name` in `folder`, made when missing; never through a link.
int EnterFolder(int folder, const std::string& name) {
    const int flags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
    int fd = openat(folder, name.c_str(), flags);
    if (fd < 0 && errno == ENOENT && mkdirat(folder, name.c_str(), 0700) == 0)
        fd = openat(folder, name.c_str(), flags);
    return fd;
}

}  // namespace

CUnzipSlot::~CUnzipSlot() {
    CloseIfOpen(m_file);
    CloseIfOpen(m_folder);
}

bool CUnzipSlot::IsFileOfSize(long long size) const {
    struct stat info {};
    return fstatat(m_folder, m_leaf.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
           S_ISREG(info.st_mode) && info.st_size == size;
}

bool CUnzipSlot::Create(int mode) {
    CloseIfOpen(m_file);
    struct stat info {};
    if (fstatat(m_folder, m_leaf.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0) {
        // Replaced, not truncated: a link or a second hard link must not
        // carry the new bytes elsewhere.
        if (S_ISDIR(info.st_mode) || unlinkat(m_folder, m_leaf.c_str(), 0) != 0)
            return false;
    }
    m_file = openat(m_folder, m_leaf.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                    static_cast<mode_t>(mode));
    return m_file >= 0;
}

bool CUnzipSlot::CloseFile() {
    const int fd = m_file;
    m_file = -1;
    return fd < 0 || close(fd) == 0;
}

void CUnzipSlot::SetModified(time_t when) const {
    const timespec times[2] = {{0, UTIME_OMIT}, {when, 0}};
    if (m_file >= 0)
        futimens(m_file, times);
    else
        utimensat(m_folder, m_leaf.c_str(), times, AT_SYMLINK_NOFOLLOW);
}

CUnzipTarget::~CUnzipTarget() {
    CloseIfOpen(m_root);
}

bool CUnzipTarget::OpenDestination() {
    if (m_root >= 0)
        return true;
    const std::string path = m_destination.utf8_string();
    if (!wxFileName::DirExists(m_destination))
        wxFileName::Mkdir(m_destination, 0700, wxPATH_MKDIR_FULL);
    m_root = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return m_root >= 0;
}

bool CUnzipTarget::Place(const std::string& name, CUnzipSlot& slot) {
    CloseIfOpen(slot.m_file);
    CloseIfOpen(slot.m_folder);
    if (!OpenDestination())
        return false;
    int folder = dup(m_root);
    size_t start = 0;
    for (size_t slash; folder >= 0 && (slash = name.find('/', start)) != std::string::npos;
         start = slash + 1) {
        const std::string component = name.substr(start, slash - start);
        if (component.empty() || component == ".")
            continue;
        const int inner = EnterFolder(folder, component);
        close(folder);
        folder = inner;
    }
    if (folder < 0)
        return false;
    slot.m_folder = folder;
    slot.m_leaf = name.substr(start);
    return !slot.m_leaf.empty() && slot.m_leaf != "." && slot.m_leaf != "..";
}

}  // namespace VeskCore
