// A wxInputStream over the top of a BIO chain that delivers at most `limit`
// bytes: reaching the limit, or the peer closing, is the end of the stream
// (raised together with the last data). A read that the chain asks to retry
// waits on its socket, at most `timeout` seconds for each idle wait.
//
// Ownership: the chain is not owned. One thread at a time.
#pragma once

#include <openssl/bio.h>
#include <wx/stream.h>

#include "core/common/Export.h"

namespace VeskCore {

class VESK_EXPORT CBioInputStream : public wxInputStream {
  public:
    CBioInputStream(BIO* bio, unsigned long limit, long timeout);
    ~CBioInputStream() override;

    // Whether a read would find data now, without waiting.
    bool CanRead() const override;

  protected:
    wxFileOffset OnSysTell() const override { return m_bytesRead; }
    size_t OnSysRead(void* buffer, size_t size) override;

  private:
    BIO* m_bio;
    long long m_bytesRead = 0;
    unsigned long long m_limit;
    long m_timeout;
};

}  // namespace VeskCore
