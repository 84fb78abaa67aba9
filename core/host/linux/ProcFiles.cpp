#include "core/host/linux/ProcFiles.h"

#include <fcntl.h>
#include <limits.h>

#include <cerrno>

namespace VeskCore {
namespace LinuxFiles {

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
    if (this != &other)
        reset(other.release());
    return *this;
}

int UniqueFd::release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

void UniqueFd::reset(int fd) {
    if (fd_ >= 0)
        close(fd_);
    fd_ = fd;
}

UniqueDir::~UniqueDir() {
    if (dir_ != nullptr)
        closedir(dir_);
}

UniqueDir OpenDirectoryAt(int at, const char* path) {
    UniqueFd fd(openat(at, path, O_RDONLY | O_DIRECTORY | O_NONBLOCK | O_CLOEXEC));
    if (!fd)
        return UniqueDir();
    DIR* dir = fdopendir(fd.get());
    if (dir != nullptr)
        fd.release();  // the stream owns it now
    return UniqueDir(dir);
}

bool ReadWholeFile(int at, const char* path, std::string& text, size_t limit) {
    text.clear();
    const UniqueFd fd(openat(at, path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    if (!fd)
        return false;
    char buffer[16384];
    while (text.size() < limit) {
        const ssize_t got = read(fd.get(), buffer, sizeof buffer);
        if (got < 0 && errno == EINTR)
            continue;
        if (got < 0)
            return false;
        if (got == 0)
            break;
        text.append(buffer, static_cast<size_t>(got));
    }
    return true;
}

std::string ReadLinkAt(int at, const char* path) {
    char target[PATH_MAX];
    const ssize_t length = readlinkat(at, path, target, sizeof target);
    return length > 0 ? std::string(target, static_cast<size_t>(length)) : std::string();
}

}  // namespace LinuxFiles
}  // namespace VeskCore
