// The agent's credentials: a certificate and its private key in one PEM file.
//
// Before activation every agent holds the same bootstrap pair, made for each
// build and compiled in. After activation the agent has a pair of its own,
// whose key is encrypted with a random password of 128 printable bytes; the
// password is sealed to this machine by libhostseal and kept beside the key
// as the PEM block "Q7 PARAMETERS". A file copied to another machine gives
// no key there.
//
// Secret files are created 0600 and close-on-exec before a byte is written;
// passwords and sealed blobs are wiped on every path, and nothing secret is
// logged or traced.
//
// Thread safety: no shared state; every function may be called from any
// thread.
#pragma once

#include <openssl/bio.h>
#include <openssl/evp.h>
#include <openssl/x509.h>
#include <wx/string.h>

#include <string>

#include "core/common/Export.h"

namespace VeskCore {

// The bootstrap certificate followed by its unencrypted PKCS#8 key.
VESK_EXPORT const char* GetBootstrapCredentials();
// SHA-1 of the bootstrap certificate: 20 upper-case hex pairs joined by ":".
VESK_EXPORT const char* GetBootstrapFingerprint();
// "Q7 PARAMETERS", the label of the block that holds the sealed password.
VESK_EXPORT const char* GetVendorPemHeader();

// Writes the bootstrap credentials to `path` (mode 0600). False when the
// file can't be written.
VESK_EXPORT bool WriteBootstrapCredentials(const wxString& path);

// Writes `certificate`, then `key` encrypted with a fresh password under
// aes-256-cbc (PKCS#8), then the sealed password, to `path` (mode 0600).
// When the password can't be sealed (fewer than two machine facts), logs
// "!3008!3008|" and writes the key unencrypted: still true. False, with the
// file untouched, for a null key or certificate; false when the file can't
// be written.
VESK_EXPORT bool EncryptPrivateKey(const wxString& path, EVP_PKEY* key, X509* certificate);

// The private key of credentials read from `bio`, which must be able to
// rewind, or null (OpenSSL's error queued, for OpenSSLError()). `encrypted`
// tells whether the key asked for a password, `decryptFlag` whether the
// password opened with only part of the machine matching (the caller should
// write the credentials again). A "Q7 PARAMETERS" block of a newer version
// gives null. Either output may be null. The caller frees the key.
VESK_EXPORT EVP_PKEY* GetPrivateKey(BIO* bio, bool* encrypted, bool* decryptFlag);
// The same over PEM text (up to its first NUL).
VESK_EXPORT EVP_PKEY* GetPrivateKey(const std::string& pem, bool* encrypted, bool* decryptFlag);

}  // namespace VeskCore

// libhostseal's trace: on when the mask "FPrint" is traced. A null format is
// empty.
extern "C" VESK_EXPORT void QX_Fingerprint_Debug(const char* format, ...)
    __attribute__((format(printf, 1, 2)));
