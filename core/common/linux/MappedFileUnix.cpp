#include "core/common/linux/MappedFileUnix.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wx/log.h>

#include <cerrno>

#include "core/common/LogSysError.h"
#include "core/common/NumberedMessages.h"

namespace VeskCore {

CMappedFileUnix::~CMappedFileUnix() {
    CMappedFileUnix::Unmap();
}

void* CMappedFileUnix::Map(const wxString& path, size_t& length) {
    Unmap();
    // Close-on-exec: a command run meanwhile (Execute) must not inherit it.
    m_fd = open(path.utf8_string().c_str(), O_RDONLY | O_CLOEXEC);
    if (m_fd < 0) {
        const int error = errno;
        VESK_LOG_SYS_ERROR(error, NumberedMessage::kFileOpenFailed, path);
        return nullptr;
    }
    struct stat info {};
    if (fstat(m_fd, &info) != 0) {
        const int error = errno;
        Unmap();
        VESK_LOG_SYS_ERROR(error, NumberedMessage::kFileStatFailed, path);
        return nullptr;
    }
    if (!S_ISREG(info.st_mode)) {
        Unmap();
        wxLogError(NumberedMessage::kFileNotRegular, path);
        return nullptr;
    }
    m_length = static_cast<size_t>(info.st_size);
    void* data = mmap(nullptr, m_length, PROT_READ, MAP_PRIVATE, m_fd, 0);
    if (data == MAP_FAILED) {
        const int error = errno;
        Unmap();
        VESK_LOG_SYS_ERROR(error, NumberedMessage::kFileMapFailed, path);
        return nullptr;
    }
    m_data = data;
    length = m_length;
    return m_data;
}

bool CMappedFileUnix::Unmap() {
    if (m_data != nullptr) {
        munmap(m_data, m_length);
        m_data = nullptr;
    }
    m_length = 0;
    if (m_fd != -1) {
        close(m_fd);
        m_fd = -1;
    }
    return true;
}

}  // namespace VeskCore
