// A wxOutputStream over the top of a BIO chain. A write or flush that the
// chain asks to retry waits on its socket, at most `timeout` seconds for each
// idle wait; a failure is the stream's error state (logged but for a wait's
// end, which the wait logs itself).
//
// Ownership: the chain is not owned. One thread at a time.
#pragma once

#include <openssl/bio.h>
#include <wx/stream.h>

#include "core/common/Export.h"

namespace VeskCore {

class VESK_EXPORT CBioOutputStream : public wxOutputStream {
  public:
    CBioOutputStream(BIO* bio, long timeout);
    ~CBioOutputStream() override;

    // The bytes the chain has taken.
    wxFileOffset GetLength() const override { return static_cast<wxFileOffset>(m_bytesWritten); }
    void Sync() override;
    // Flushes; true whatever came of it: the stream's error state tells.
    bool Close() override;

  protected:
    wxFileOffset OnSysTell() const override { return static_cast<wxFileOffset>(m_bytesWritten); }
    size_t OnSysWrite(const void* buffer, size_t size) override;

  private:
    bool Wait(bool retryRead, bool retryWrite);

    BIO* m_bio;
    unsigned long long m_bytesWritten = 0;
    long m_timeout;
};

}  // namespace VeskCore
