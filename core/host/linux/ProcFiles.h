// Small owners of Linux handles for the host queries, and whole reads of the
// /proc texts, which report a size of 0 and so must be read to the end.
//
// Thread safety: no shared state.
#pragma once

#include <dirent.h>
#include <unistd.h>

#include <string>

namespace VeskCore {
namespace LinuxFiles {

// Owns a descriptor; -1 holds nothing.
class UniqueFd {
  public:
    explicit UniqueFd(int fd = -1) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release();
    void reset(int fd = -1);

  private:
    int fd_;
};

// Owns a directory stream; null holds nothing.
class UniqueDir {
  public:
    explicit UniqueDir(DIR* dir = nullptr) : dir_(dir) {}
    UniqueDir(const UniqueDir&) = delete;
    UniqueDir& operator=(const UniqueDir&) = delete;
    ~UniqueDir();

    DIR* get() const { return dir_; }
    explicit operator bool() const { return dir_ != nullptr; }

  private:
    DIR* dir_;
};

// The directory `path` below `at` (AT_FDCWD: the working directory); null
// with errno set when it can't be opened. Never blocks on a FIFO.
UniqueDir OpenDirectoryAt(int at, const char* path);

// All of `path` below `at` into `text`, at most `limit` bytes. False with
// errno set when it can't be opened or read.
bool ReadWholeFile(int at, const char* path, std::string& text, size_t limit = 1 << 26);

// The target of the link `path` below `at`; empty when it can't be read.
std::string ReadLinkAt(int at, const char* path);

}  // namespace LinuxFiles
}  // namespace VeskCore
