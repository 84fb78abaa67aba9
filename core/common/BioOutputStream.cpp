#include "core/common/BioOutputStream.h"

#include <wx/log.h>

#include <algorithm>
#include <climits>

#include "core/common/BioStream.h"
#include "core/http/OpenSslUtil.h"
#include "core/runtime/LogTrace.h"

namespace VeskCore {
namespace {
constexpr const char* kTrace = "Bio";
}  // namespace

CBioOutputStream::CBioOutputStream(BIO* bio, long timeout) : m_bio(bio), m_timeout(timeout) {}

CBioOutputStream::~CBioOutputStream() {
    m_bio = nullptr;
}

// A retry waits for what the chain asks, not for the stream's direction: in
// a TLS renegotiation a write may wait for the socket to be readable.
bool CBioOutputStream::Wait(bool retryRead, bool retryWrite) {
    if (BioWaitWithTimeout(m_bio, retryRead, retryWrite, m_timeout))
        return true;
    m_lasterror = wxSTREAM_WRITE_ERROR;
    return false;
}

size_t CBioOutputStream::OnSysWrite(const void* buffer, size_t size) {
    if (m_bio == nullptr)
        m_lasterror = wxSTREAM_WRITE_ERROR;
    if (!IsOk() || size == 0)
        return 0;
    const int length = static_cast<int>(std::min<size_t>(size, INT_MAX));
    for (;;) {
        LogTrace(kTrace, "Trying to write %llu bytes...", static_cast<unsigned long long>(length));
        const int result = BIO_write(m_bio, buffer, length);
        LogTrace(kTrace, "BIO_write returned %d", result);
        if (result > 0) {
            m_bytesWritten += static_cast<unsigned long long>(result);
            return static_cast<size_t>(result);  // a short write: the caller's copy loops
        }
        bool retryRead = false;
        bool retryWrite = false;
        if (!BioShouldRetry(m_bio, retryRead, retryWrite)) {
            wxLogError(wxS("CBioOutputStream::OnSysWrite() - BIO_write() returned %ld on a write "
                           "of %ld bytes: %.128s"),
                       static_cast<long>(result), static_cast<long>(size), OpenSSLError());
            m_lasterror = wxSTREAM_WRITE_ERROR;
            return 0;
        }
        if (!Wait(retryRead, retryWrite))
            return 0;
    }
}

void CBioOutputStream::Sync() {
    if (m_bio == nullptr)
        m_lasterror = wxSTREAM_WRITE_ERROR;
    if (!IsOk())
        return;
    for (;;) {
        LogTrace(kTrace, "Trying to flush output...");
        const int result = static_cast<int>(BIO_flush(m_bio));
        LogTrace(kTrace, "BIO_flush returned %d", result);
        if (result == 1)
            return;
        bool retryRead = false;
        bool retryWrite = false;
        if (!BioShouldRetry(m_bio, retryRead, retryWrite)) {
            wxLogError(wxS("CBioOutputStream::Sync() - BIO_flush() %.128s"), OpenSSLError());
            m_lasterror = wxSTREAM_WRITE_ERROR;
            return;
        }
        if (!Wait(retryRead, retryWrite))
            return;
    }
}

bool CBioOutputStream::Close() {
    Sync();
    return true;
}

}  // namespace VeskCore
