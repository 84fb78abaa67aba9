// Where an OpenSSL BIO chain over a non-blocking socket waits, in one place:
// its requests to retry become select() waits with a time-out. Also a BIO
// that writes into the trace log, and a BIO callback that hex-dumps traffic,
// both for tracing. Trace lines go under the mask "Bio".
//
// Thread safety: a chain belongs to one thread at a time.
#pragma once

#include <openssl/bio.h>

#include "core/common/Export.h"

namespace VeskCore {

// Whether the last operation on `bio` asked to be retried, and for what. A
// retry for neither reading nor writing (a pending connect) counts as none.
VESK_EXPORT bool BioShouldRetry(BIO* bio, bool& retryRead, bool& retryWrite);

// Waits until the chain's socket is ready for what is asked (or in error), at
// most `timeoutSeconds` (0: a poll). Data already buffered in the chain satisfies
// a read at once. False without a descriptor, on a select() error (logged),
// and on a time-out: logged (but for a poll), and ETIMEDOUT left in OpenSSL's
// error queue for whoever reports the failure.
VESK_EXPORT bool BioWaitWithTimeout(BIO* bio, bool forRead, bool forWrite, long timeoutSeconds);

// A sink BIO of type 1025 ("QXRpc::LogTrace") that writes each line into the
// trace log under the name given with BIO_CTRL_SET; a single byte (a lone
// newline) makes no line.
VESK_EXPORT BIO_METHOD* BIO_s_LogTrace();
// A trace BIO under `traceName`, behind a buffer BIO when `buffered` (so that
// a message written piecemeal is one line at the flush). Null on failure.
VESK_EXPORT BIO* BIO_new_LogTrace(const char* traceName, bool buffered);

// A BIO callback that hex-dumps what was read or written into the BIO set as
// its callback argument (which OpenSSL does not own).
VESK_EXPORT long BioDumpCB(BIO* bio, int oper, const char* argp, int argi, long argl, long ret);

}  // namespace VeskCore
