#include "core/common/BioInputStream.h"

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

CBioInputStream::CBioInputStream(BIO* bio, unsigned long limit, long timeout)
    : m_bio(bio), m_limit(limit), m_timeout(timeout) {}

CBioInputStream::~CBioInputStream() {
    m_bio = nullptr;
}

bool CBioInputStream::CanRead() const {
    return BioWaitWithTimeout(m_bio, true, false, 0);
}

size_t CBioInputStream::OnSysRead(void* buffer, size_t size) {
    if (m_bio == nullptr)
        m_lasterror = wxSTREAM_READ_ERROR;
    if (!IsOk() || size == 0)
        return 0;  // after the end too: it never reaches the chain
    for (;;) {
        const unsigned long long left = m_limit - static_cast<unsigned long long>(m_bytesRead);
        const int count = static_cast<int>(std::min<unsigned long long>({left, size, INT_MAX}));
        LogTrace(kTrace, "Trying to read %llu bytes...", static_cast<unsigned long long>(count));
        const int result = BIO_read(m_bio, buffer, count);
        LogTrace(kTrace, "BIO_read returned %d", result);
        if (result == 0) {
            LogTrace(kTrace, "Peer closed socket - setting EOF");
            m_lasterror = wxSTREAM_EOF;
            return 0;
        }
        if (result > 0) {
            m_bytesRead += result;
            if (m_bytesRead >= static_cast<long long>(m_limit)) {
                LogTrace(kTrace, "Read %llu bytes - setting EOF",
                         static_cast<unsigned long long>(m_bytesRead));
                m_lasterror = wxSTREAM_EOF;
            }
            return static_cast<size_t>(result);
        }
        bool retryRead = false;
        bool retryWrite = false;
        if (!BioShouldRetry(m_bio, retryRead, retryWrite)) {
            wxLogError(wxS("CBioInputStream::Read() - BIO_read() returned an error: %.256s"),
                       OpenSSLError());
            m_lasterror = wxSTREAM_READ_ERROR;
            return 0;
        }
        // Each idle wait has the whole time-out afresh.
        if (!BioWaitWithTimeout(m_bio, retryRead, retryWrite, m_timeout)) {
            m_lasterror = wxSTREAM_READ_ERROR;
            return 0;
        }
    }
}

}  // namespace VeskCore
