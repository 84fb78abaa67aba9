// How OpenSSL is fitted into the library: an allocator that wipes what
// OpenSSL frees, the text of its errors in the one form every message quotes,
// a digest update over text, and the opening of the signed (and encrypted)
// packages the manager sends.
//
// Thread safety: every function may be called from any thread; OpenSSL 3
// locks for itself.
#pragma once

#include <openssl/evp.h>
#include <openssl/x509.h>
#include <wx/string.h>

#include <string>

#include "core/common/Export.h"

namespace VeskCore {

// The allocator OpenSSL uses, installed when the library loads. Each block
// has an 8-byte header (the size asked for, then a marker) ahead of what
// OpenSSL sees; a free wipes from the header over the stored size. A block
// without the marker is not ours and is freed untouched.
void* Secure_Malloc(size_t size, const char* file, int line);
void* Secure_Realloc(void* block, size_t size, const char* file, int line);
void Secure_Free(void* block, const char* file, int line);
// Whether OpenSSL took the allocator: it refuses once it has allocated.
bool SecureAllocatorInForce();

// Kept for the library's start and end; OpenSSL 3 needs no lock callbacks.
void OpenSSLThreadSetup();
void OpenSSLThreadShutdown();

// The text of an OpenSSL error code, with " [data]" behind it when `data` is
// not null (an empty text gives "[]").
VESK_EXPORT wxString OpenSSLError(unsigned long code, const char* data);
// The text of the oldest queued error, which it takes off the queue.
VESK_EXPORT wxString OpenSSLError();

// Feeds the UTF-8 bytes of `text`, without a terminator, to the digest.
// Returns EVP_DigestUpdate's result, or 0 (logged) for text that has no UTF-8
// form.
VESK_EXPORT int EVP_DigestUpdate(EVP_MD_CTX* context, const wxString& text);

// Opens a DER package of signed data, or of enveloped data around
// zlib-compressed signed data (which needs `key` and `certificate`). With a
// `signer`, the signature must verify with that certificate as the only
// trust anchor; without one, the content is taken unchecked. On success
// `content` holds the signed bytes and `digest` the signed messageDigest.
// On failure `error` says why (logged, but for a missing key); `content` may
// still be set. `digest` is not emptied first.
VESK_EXPORT bool PKCS7_Unwrap(const std::string& package, std::string& content, std::string& digest,
                              std::string& error, EVP_PKEY* key, X509* certificate, X509* signer);

}  // namespace VeskCore
